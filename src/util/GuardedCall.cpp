#include "util/GuardedCall.h"

namespace brvo {

std::string Caught::Describe(const std::string& prefix) const {
    if (kind_ == kLibrary) return prefix + "[" + text_ + "]";
    return prefix + "exception";
}

std::string Caught::DescribeTagged(const std::string& prefix) const {
    if (kind_ == kLibrary) return prefix + "EXCEPTION[" + text_ + "]";
    return prefix + "exception";
}

} // namespace brvo
