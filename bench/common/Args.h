// The few command-line options of the benchmark programs: "--name value" pairs, nothing else.
#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace telvane::bench {

class Args
{
public:
    Args(int argc, char **argv, int first = 1)
    {
        for (int i = first; i + 1 < argc; i += 2)
            if (std::string(argv[i]).rfind("--", 0) == 0)
                values_[argv[i] + 2] = argv[i + 1];
    }
    std::string text(const std::string &name, std::string fallback = {}) const
    {
        const auto it = values_.find(name);
        return it == values_.end() ? fallback : it->second;
    }
    long long number(const std::string &name, long long fallback) const
    {
        const auto it = values_.find(name);
        return it == values_.end() ? fallback : std::strtoll(it->second.c_str(), nullptr, 10);
    }

private:
    std::map<std::string, std::string> values_;
};

/// The first line of @p path: where the benchmarks keep the test account's password (never on a command
/// line).
inline std::string readFirstLine(const std::string &path)
{
    std::string line;
    std::getline(std::ifstream(path), line);
    return line;
}

/// Appends "key=value" lines to the result file that the comparing program reads back.
class ResultFile
{
public:
    explicit ResultFile(const std::string &path) : out_(path, std::ios::trunc) {}
    template <typename T> void put(const char *key, const T &value)
    {
        out_ << key << '=' << value << '\n' << std::flush;
    }

private:
    std::ofstream out_;
};

} // namespace telvane::bench
