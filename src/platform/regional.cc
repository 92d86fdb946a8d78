// The process-wide regional settings.
#include "platform/regional.h"

namespace quillo {

RegionalSettings& Regional() {
  static RegionalSettings settings;
  return settings;
}

}  // namespace quillo
