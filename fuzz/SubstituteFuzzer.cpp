// Placeholder substitution against a naive model: whatever the keys, values and template, the result is the
// one that replacing each "__KEY__" in turn, left to right, gives.
#include "FuzzCheck.h"
#include "ScriptText_p.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

namespace {
// Replaces every occurrence of @p from, resuming after each inserted value so that a value holding its own
// placeholder is not expanded again.
std::string modelReplace(std::string text, const std::string &from, const std::string &to)
{
    for (std::size_t pos = 0; (pos = text.find(from, pos)) != std::string::npos; pos += to.size())
        text.replace(pos, from.size(), to);
    return text;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    // Short keys and values, so that keys collide with the template's text and with each other.
    TelvaneArguments arguments;
    const int count = input.ConsumeIntegralInRange(0, 4);
    for (int i = 0; i < count; ++i) {
        std::string key = input.ConsumeRandomLengthString(8);
        std::string value = input.ConsumeRandomLengthString(24);
        arguments.emplace_back(std::move(key), std::move(value));
    }
    const std::string script = input.ConsumeRemainingBytesAsString();

    const std::string result = telvane::substitutePlaceholders(script, arguments);
    std::string expected = script;
    for (const auto &[key, value] : arguments)
        expected = modelReplace(expected, "__" + key + "__", value);
    FUZZ_CHECK(result == expected);
    if (arguments.empty())
        FUZZ_CHECK(result == script);
    return 0;
}
