#include "ScriptFile.h"

#include "FileReading.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iconv.h>
#include <string_view>

namespace {

// The offset of the first NUL byte or the first byte that is not valid UTF-8; iconv stops right there.
std::optional<std::size_t> firstInvalidUtf8(std::string_view text)
{
    std::size_t end = text.find('\0');
    const std::string_view checked = text.substr(0, end);
    const iconv_t converter = ::iconv_open("UTF-8", "UTF-8");
    if (converter == reinterpret_cast<iconv_t>(-1))
        return end == std::string_view::npos ? std::nullopt : std::optional(end);
    char *in = const_cast<char *>(checked.data());
    std::size_t inLeft = checked.size();
    char buffer[4096];
    while (inLeft > 0) {
        char *out = buffer;
        std::size_t outLeft = sizeof buffer;
        if (::iconv(converter, &in, &inLeft, &out, &outLeft) == static_cast<std::size_t>(-1) &&
            errno != E2BIG) {
            end = static_cast<std::size_t>(in - checked.data());
            break;
        }
    }
    ::iconv_close(converter);
    return end == std::string_view::npos ? std::nullopt : std::optional(end);
}

std::size_t lineNumberAt(std::string_view text, std::size_t offset)
{
    std::size_t line = 1;
    for (std::size_t i = 0; i < offset; ++i)
        line += text[i] == '\n';
    return line;
}

// CRLF becomes LF; true when there was any.
bool convertCrlf(std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n'))
            out += text[i];
    const bool changed = out.size() != text.size();
    text = std::move(out);
    return changed;
}

bool isBlank(std::string_view line)
{
    return line.find_first_not_of(" \t\r\f\v") == std::string_view::npos;
}

// A line whose first visible character is "#": a comment (or "#!"), meant to go.
bool isComment(std::string_view line)
{
    const auto first = line.find_first_not_of(" \t");
    return first != std::string_view::npos && line[first] == '#';
}

// Warns of each line that the sending removes although it holds a command; false when no line would run.
bool reviewLines(std::string_view text, const std::string &name, std::vector<std::string> &warnings)
{
    bool anyRuns = false;
    // Lines end at carriage returns too, as they do for the sending; numbers count line feeds only, as an
    // editor shows them (a CRLF file keeps its numbers).
    std::size_t number = 1, warned = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t end = std::min(text.find_first_of("\n\r", pos), text.size());
        const std::string_view line = text.substr(pos, end - pos);
        if (line.find('#') == std::string_view::npos) {
            anyRuns = anyRuns || !isBlank(line);
        } else if (!isComment(line) && warned != number) {
            warnings.push_back(name + " line " + std::to_string(number) +
                               " holds \"#\", so the whole line is removed before sending");
            warned = number;
        }
        if (end < text.size() && text[end] == '\n')
            ++number;
        pos = end + 1;
    }
    return anyRuns;
}

} // namespace

std::optional<ScriptText> loadScript(const std::string &path, std::string &error)
{
    const bool standardInput = path == "-";
    const std::string name =
        standardInput ? std::string("the script on standard input") : "the script " + path;
    FileDescriptor fd(standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!openReadable("the script", standardInput ? "on standard input" : path, fd, error))
        return std::nullopt;
    ScriptText script;
    if (!readAll(fd.get(), script.text)) {
        error = systemError("the script", standardInput ? "on standard input" : path);
        return std::nullopt;
    }
    if (const auto bad = firstInvalidUtf8(script.text)) {
        error = name + " is not UTF-8 text or holds a NUL byte (line " +
                std::to_string(lineNumberAt(script.text, *bad)) + "); nothing was sent";
        return std::nullopt;
    }
    if (script.text.empty()) {
        error = name + " is empty; nothing to run";
        return std::nullopt;
    }
    if (convertCrlf(script.text))
        script.warnings.push_back(name + " has CRLF line ends; they are converted to LF");
    const std::string shortName = standardInput ? std::string("standard input") : path;
    if (!reviewLines(script.text, shortName, script.warnings)) {
        error = name + " has nothing to run: every line is blank or holds \"#\", and such lines are "
                       "removed before sending";
        return std::nullopt;
    }
    return script;
}
