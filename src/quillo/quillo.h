// quillo: timed, sequential (drip) e-mail campaigns in one library.
//
// The umbrella header: include it to reach every public class and the
// platform layer they share. A host creates classes by name
// (quillo::CreateObject("dmCampaignProcessor")) or uses them as ordinary C++
// types, lends them a database connection and drives them; see docs/guide.md.
#ifndef QUILLO_QUILLO_H_
#define QUILLO_QUILLO_H_

#include "campaign/constants.h"
#include "campaign/dm_campaign_msg.h"
#include "campaign/dm_campaign_processor.h"
#include "campaign/dmclientsmrktcmp.h"
#include "campaign/dmdatecomputation.h"
#include "campaign/dmmrktcmp.h"
#include "campaign/dmmrktcmphistory.h"
#include "campaign/dmmrktcmpitems.h"
#include "campaign/dmmsgqueue.h"
#include "campaign/dmsentitems.h"
#include "codec/base64.h"
#include "codec/md5.h"
#include "message/dm_message.h"
#include "message/dm_message_parm.h"
#include "message/personalisation.h"
#include "platform/clock.h"
#include "platform/collection.h"
#include "platform/database.h"
#include "platform/date.h"
#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/file.h"
#include "platform/format.h"
#include "platform/object.h"
#include "platform/regional.h"
#include "platform/schema.h"
#include "platform/socket.h"
#include "platform/tcp_socket.h"
#include "platform/text.h"
#include "platform/tls_socket.h"
#include "platform/variant.h"
#include "platform/xml.h"
#include "records/dmcatalogitem.h"
#include "records/dmclients.h"
#include "records/dmclientscustom.h"
#include "records/dmcontrolparameters.h"
#include "records/dmcustomfielddef.h"
#include "records/dmcustomfieldlistdef.h"
#include "records/dmolxref.h"
#include "records/dmsinglemessageconfig.h"
#include "records/dmsmtpaccounts.h"
#include "records/general_utilities.h"
#include "records/idgen.h"
#include "records/record.h"
#include "records/sql_statement.h"
#include "smtp/ard_esmtp.h"
#include "smtp/ard_esmtp_attachment.h"

#endif  // QUILLO_QUILLO_H_
