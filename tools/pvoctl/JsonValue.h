// Texts and numbers written the way pvoctl's JSON and metrics output need
// them: strings escaped, numbers in full precision.
#ifndef BRVO_TOOLS_PVOCTL_JSONVALUE_H
#define BRVO_TOOLS_PVOCTL_JSONVALUE_H

#include <string>

namespace brvo {

class JsonValue {
public:
    // `text` as a JSON string literal, quotes included.
    static std::string Text(const std::string& text);
    // The shortest decimal text that reads back as exactly `value`
    // (74074.0734, 4, 1e-05); "null" for a value that is not finite.
    static std::string Number(double value);
};

} // namespace brvo

#endif
