// Script normalisation: the invariants that make a script safe to send, and, for short inputs, agreement
// with the regular expressions the rules are written in.
#include "FuzzCheck.h"
#include "ScriptText_p.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <regex>
#include <string>

namespace {
constexpr std::string_view kPlaceholder = "__PASSWORD__";

std::size_t countOf(std::string_view text, std::string_view what)
{
    std::size_t n = 0;
    for (std::size_t pos = 0; (pos = text.find(what, pos)) != std::string_view::npos; pos += what.size())
        ++n;
    return n;
}

// The rules as regular expressions: "." stops at line feeds and carriage returns, as in the original
// wording. std::regex recurses per character, so it only sees short inputs.
std::string model(const std::string &script, const std::string &password)
{
    std::string text = std::regex_replace(script, std::regex(".*#.*"), "");
    text = std::regex_replace(text, std::regex("[\n]+"), "\n");
    std::string out;
    std::size_t pos = 0;
    for (std::size_t hit; (hit = text.find(kPlaceholder, pos)) != std::string::npos;
         pos = hit + kPlaceholder.size())
        out.append(text, pos, hit - pos).append(password);
    return out.append(text, pos);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string password = input.ConsumeRandomLengthString(40);
    const std::string script = input.ConsumeRemainingBytesAsString();

    // Putting the placeholder back in for itself shows the text before the password goes in.
    const std::string bare = telvane::normaliseScript(script, kPlaceholder);
    const std::string out = telvane::normaliseScript(script, password);
    const std::size_t slots = countOf(bare, kPlaceholder);

    FUZZ_CHECK(bare.find('#') == std::string::npos);
    FUZZ_CHECK(bare.find("\n\n") == std::string::npos);
    FUZZ_CHECK(bare.size() <= script.size());
    // Number signs only from the password; growth only by the password in each slot.
    FUZZ_CHECK(static_cast<std::size_t>(std::count(out.begin(), out.end(), '#')) ==
               slots * static_cast<std::size_t>(std::count(password.begin(), password.end(), '#')));
    FUZZ_CHECK(out.size() == bare.size() - slots * kPlaceholder.size() + slots * password.size());
    FUZZ_CHECK(out.size() <= script.size() + slots * password.size());
    if (!password.empty() && password.find('\n') == std::string::npos)
        FUZZ_CHECK(out.find("\n\n") == std::string::npos);
    // Normalising twice changes nothing.
    FUZZ_CHECK(telvane::normaliseScript(bare, kPlaceholder) == bare);

    if (script.size() <= 64)
        FUZZ_CHECK(out == model(script, password));
    return 0;
}
