#include "companion/ChannelKind.h"

#include <cctype>

namespace {
bool StartsWithWord(const std::string& upper, const std::string& prefix, bool wholeWord)
{
    if (upper.compare(0, prefix.size(), prefix) != 0)
        return false;
    // "EOG1", "EMG chin" and "ECG-L" name a kind; "EMGX" or "EOGRAPHY" would not.
    return !wholeWord || upper.size() == prefix.size() || !std::isalpha(static_cast<unsigned char>(upper[prefix.size()]));
}
}  // namespace

std::string InferChannelType(const std::string& label)
{
    std::string upper;
    for (unsigned char c : label)
        if (!std::isspace(c) || !upper.empty())
            upper += static_cast<char>(std::toupper(c));
    static const struct {
        const char* prefix;
        bool wholeWord;
        const char* kind;
    } rules[] = {
        {"EOG", true, "EOG"}, {"ECG", true, "ECG"},   {"EKG", true, "ECG"},         {"EMG", true, "EMG"},
        {"RESP", false, "resp"}, {"STI", false, "trigger"}, {"TRIG", false, "trigger"}, {"EEG", true, "EEG"},
    };
    for (const auto& r : rules)
        if (StartsWithWord(upper, r.prefix, r.wholeWord))
            return r.kind;
    return "";
}
