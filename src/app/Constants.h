// The application's version text. Each unit gets its own copy
// (namespace-scope const objects have internal linkage), so no unit depends
// on another unit's static initialisation order.
#ifndef BRVO_APP_CONSTANTS_H
#define BRVO_APP_CONSTANTS_H

#include <string>

namespace brvo {

// Application version, written to the log at start.
const std::string kAppVersion = "20220119_qtx";

} // namespace brvo

#endif
