// quillo: timed, sequential (drip) e-mail campaigns in one library.
//
// The umbrella header: include it to reach every public class and the
// platform layer they share. A host creates classes by name
// (quillo::CreateObject("dmCampaignProcessor")) or uses them as ordinary C++
// types, lends them a database connection and drives them; see docs/guide.md.
#ifndef QUILLO_QUILLO_H_
#define QUILLO_QUILLO_H_

#include "platform/clock.h"
#include "platform/collection.h"
#include "platform/date.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/object.h"
#include "platform/text.h"
#include "platform/variant.h"

#endif  // QUILLO_QUILLO_H_
