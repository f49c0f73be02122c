#include "ScriptOutput.h"

#include <charconv>
#include <set>

namespace {

bool isNameStart(char c, bool colonAllowed)
{
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || (colonAllowed && c == ':');
}

bool isNameChar(char c, bool colonAllowed)
{
    return isNameStart(c, colonAllowed) || std::isdigit(static_cast<unsigned char>(c));
}

// Takes a metric name (colons allowed) or a label name from the front of @p text.
std::string_view takeName(std::string_view &text, bool colonAllowed)
{
    if (text.empty() || !isNameStart(text.front(), colonAllowed))
        return {};
    std::size_t end = 1;
    while (end < text.size() && isNameChar(text[end], colonAllowed))
        ++end;
    const auto name = text.substr(0, end);
    text.remove_prefix(end);
    return name;
}

void skipBlanks(std::string_view &text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
}

bool validUtf8(std::string_view text)
{
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t length = c < 0x80         ? 1
                                   : (c >> 5) == 6  ? 2
                                   : (c >> 4) == 14 ? 3
                                   : (c >> 3) == 30 ? 4
                                                    : 0;
        if (length == 0 || i + length > text.size() || (length == 2 && c < 0xc2))
            return false;
        for (std::size_t k = 1; k < length; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xc0) != 0x80)
                return false;
        i += length;
    }
    return true;
}

// Takes a quoted label value with its escapes (\\, \" and \n) from the front of @p text.
bool takeLabelValue(std::string_view &text)
{
    if (text.empty() || text.front() != '"')
        return false;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '\\') {
            if (++i >= text.size() || (text[i] != '\\' && text[i] != '"' && text[i] != 'n'))
                return false;
        } else if (text[i] == '"') {
            text.remove_prefix(i + 1);
            return true;
        }
    }
    return false;
}

// Takes "{name="value",...}" from the front of @p text; a trailing comma is allowed, a repeated name not.
bool takeLabels(std::string_view &text)
{
    text.remove_prefix(1); // "{"
    std::set<std::string_view> seen;
    for (;;) {
        skipBlanks(text);
        if (!text.empty() && text.front() == '}')
            break;
        const auto name = takeName(text, false);
        if (name.empty() || name.substr(0, 2) == "__" || !seen.insert(name).second)
            return false;
        skipBlanks(text);
        if (text.empty() || text.front() != '=')
            return false;
        text.remove_prefix(1);
        skipBlanks(text);
        if (!takeLabelValue(text))
            return false;
        skipBlanks(text);
        if (!text.empty() && text.front() == ',')
            text.remove_prefix(1);
        else if (text.empty() || text.front() != '}')
            return false;
    }
    text.remove_prefix(1); // "}"
    return true;
}

// A sample value as Prometheus reads it: a decimal number, "NaN", "+Inf" or "-Inf" (case aside).
bool isValue(std::string_view text)
{
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    if (text.empty() || text.front() == '+' || text.find('(') != std::string_view::npos)
        return false; // "+-1", "nan(1)": Prometheus reads neither
    double value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

bool isTimestamp(std::string_view text)
{
    long long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

bool isSampleLine(std::string_view line, std::string_view &name)
{
    name = takeName(line, true);
    if (name.empty() || (!line.empty() && line.front() == '{' && !takeLabels(line)))
        return false;
    if (line.empty() || (line.front() != ' ' && line.front() != '\t'))
        return false;
    skipBlanks(line);
    const auto valueEnd = std::min(line.find_first_of(" \t"), line.size());
    if (!isValue(line.substr(0, valueEnd)))
        return false;
    line.remove_prefix(valueEnd);
    skipBlanks(line);
    return line.empty() || isTimestamp(line.substr(0, std::min(line.find_first_of(" \t"), line.size())));
}

bool isHelpOrTypeLine(std::string_view line, std::string_view &name)
{
    line.remove_prefix(1); // "#"
    skipBlanks(line);
    const bool help = line.substr(0, 4) == "HELP";
    if (!help && line.substr(0, 4) != "TYPE")
        return false;
    line.remove_prefix(4);
    if (line.empty() || (line.front() != ' ' && line.front() != '\t'))
        return false;
    skipBlanks(line);
    name = takeName(line, true);
    if (name.empty() || (!line.empty() && line.front() != ' ' && line.front() != '\t'))
        return false;
    skipBlanks(line);
    static const std::set<std::string_view> types = {"counter", "gauge", "histogram", "summary", "untyped"};
    return help || types.count(line.substr(0, line.find_last_not_of(" \t") + 1)) > 0;
}

} // namespace

bool isPrometheusLine(std::string_view line, std::string_view &name)
{
    if (!validUtf8(line))
        return false;
    return !line.empty() && line.front() == '#' ? isHelpOrTypeLine(line, name) : isSampleLine(line, name);
}

ScriptOutput::ScriptOutput(std::size_t limit) : limit_(limit) {}

bool ScriptOutput::append(const char *data, std::size_t size)
{
    std::lock_guard lock(mutex_);
    const std::size_t room = limit_ - text_.size();
    text_.append(data, std::min(size, room));
    truncated_ = truncated_ || size > room;
    return !truncated_;
}

ScriptOutput::Sifted ScriptOutput::sifted(const std::string &reservedPrefix, bool ended) const
{
    std::lock_guard lock(mutex_);
    Sifted result;
    result.bytes = text_.size();
    result.truncated = truncated_;
    const std::string_view text = text_;
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t end = text.find('\n', pos);
        auto line = text.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos);
        pos = end == std::string_view::npos ? text.size() : end + 1;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        std::string_view name;
        // Text after the last line feed is a whole line only when the script ended and nothing was cut off;
        // at a deadline or the cap it may be half a number.
        const bool whole = end != std::string_view::npos || (ended && !truncated_);
        if (whole && isPrometheusLine(line, name) && name.substr(0, reservedPrefix.size()) != reservedPrefix)
            result.text.append(line).append(1, '\n');
        else if (line.find_first_not_of(" \t") != std::string_view::npos)
            ++result.dropped;
    }
    return result;
}
