#include "ScriptText_p.h"

namespace telvane {

std::string replaceAll(std::string_view text, std::string_view from, std::string_view to)
{
    if (from.empty())
        return std::string(text);
    // Sized once, up front: growing the buffer midway would free a copy of what was already inserted, and
    // for the password that copy would be left unwiped on the heap.
    std::size_t hits = 0;
    for (std::size_t hit = text.find(from); hit != std::string_view::npos;
         hit = text.find(from, hit + from.size()))
        ++hits;
    std::string out;
    out.reserve(text.size() - hits * from.size() + hits * to.size());
    std::size_t pos = 0;
    for (std::size_t hit; (hit = text.find(from, pos)) != std::string_view::npos; pos = hit + from.size()) {
        out.append(text, pos, hit - pos);
        out.append(to);
    }
    out.append(text, pos);
    return out;
}

std::string substitutePlaceholders(std::string_view script, const TelvaneArguments &arguments)
{
    std::string text(script);
    for (const auto &[key, value] : arguments)
        text = replaceAll(text, "__" + key + "__", value);
    return text;
}

std::string normaliseScript(std::string_view script, std::string_view password)
{
    // 1. A line holding "#" anywhere loses all its text; its line break stays. Carriage returns end a line
    //    here as line feeds do.
    std::string stripped;
    stripped.reserve(script.size());
    for (std::size_t pos = 0; pos < script.size();) {
        std::size_t end = script.find_first_of("\n\r", pos);
        if (end == std::string_view::npos)
            end = script.size();
        const std::string_view line = script.substr(pos, end - pos);
        if (line.find('#') == std::string_view::npos)
            stripped.append(line);
        if (end < script.size())
            stripped.push_back(script[end]);
        pos = end + 1;
    }
    // 2. Every run of line feeds becomes one.
    std::string folded;
    folded.reserve(stripped.size());
    for (const char c : stripped)
        if (c != '\n' || folded.empty() || folded.back() != '\n')
            folded.push_back(c);
    // 3. The password goes in last, so that a "#" inside it survives.
    return replaceAll(folded, "__PASSWORD__", password);
}

namespace {

// The UTF-8 sequence that @p lead starts: its length, and the range its second byte must fall in (this rules
// out overlong forms, UTF-16 surrogates and code points past U+10FFFF). Length 0: no valid lead byte.
struct Sequence
{
    std::size_t length;
    unsigned char low = 0x80, high = 0xbf;
};

Sequence sequenceStartedBy(unsigned char lead)
{
    if (lead < 0x80)
        return {lead == 0 ? 0u : 1u};
    if (lead >= 0xc2 && lead <= 0xdf)
        return {2};
    if (lead >= 0xe0 && lead <= 0xef)
        return {3, static_cast<unsigned char>(lead == 0xe0 ? 0xa0 : 0x80),
                static_cast<unsigned char>(lead == 0xed ? 0x9f : 0xbf)};
    if (lead >= 0xf0 && lead <= 0xf4)
        return {4, static_cast<unsigned char>(lead == 0xf0 ? 0x90 : 0x80),
                static_cast<unsigned char>(lead == 0xf4 ? 0x8f : 0xbf)};
    return {0};
}

} // namespace

bool isSendableText(std::string_view text)
{
    const auto byte = [&](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    for (std::size_t i = 0; i < text.size();) {
        const Sequence sequence = sequenceStartedBy(byte(i));
        if (sequence.length == 0 || i + sequence.length > text.size())
            return false;
        for (std::size_t k = 1; k < sequence.length; ++k) {
            const unsigned char next = byte(i + k);
            if (k == 1 ? (next < sequence.low || next > sequence.high) : (next < 0x80 || next > 0xbf))
                return false;
        }
        i += sequence.length;
    }
    return true;
}

} // namespace telvane
