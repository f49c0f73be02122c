#include "Config.h"

#include "PasswordFile.h"
#include "ScriptFile.h"

#include <yaml-cpp/yaml.h>

#include <charconv>
#include <cmath>
#include <set>

namespace {

// A configuration fault, where it is and in which field; loadConfig turns it into one line.
struct ConfigError
{
    YAML::Mark mark;
    std::string field;
    std::string message;
};

[[noreturn]] void fail(const YAML::Node &node, const std::string &field, const std::string &message)
{
    throw ConfigError{node.Mark(), field, message};
}

std::string scalar(const YAML::Node &node, const std::string &field)
{
    if (!node.IsScalar())
        fail(node, field, "expected a single value");
    return node.Scalar();
}

bool boolean(const YAML::Node &node, const std::string &field)
{
    const std::string text = scalar(node, field);
    if (text != "true" && text != "false")
        fail(node, field, "expected true or false");
    return text == "true";
}

// Refuses a key that is not in @p known: a misspelt key would otherwise be silently ignored.
void checkKeys(const YAML::Node &map, const std::string &field, const std::set<std::string> &known)
{
    if (!map.IsMap())
        fail(map, field, "expected a mapping");
    for (const auto &entry : map) {
        const std::string key = entry.first.as<std::string>();
        if (!known.count(key))
            fail(entry.first, field.empty() ? key : field + "." + key, "unknown field");
    }
}

TelvaneHostKeyPolicy hostKeyPolicy(const YAML::Node &node, const std::string &field)
{
    const std::string text = scalar(node, field);
    if (text == "strict")
        return TelvaneHostKeyPolicy::Strict;
    if (text == "accept-new")
        return TelvaneHostKeyPolicy::AcceptNew;
    if (text == "accept-any")
        return TelvaneHostKeyPolicy::AcceptAny;
    fail(node, field, "\"" + text + "\" is not strict, accept-new or accept-any");
}

void readScript(const YAML::Node &node, const std::string &field, ModuleConfig &module,
                std::vector<std::string> &warnings)
{
    module.scriptPath = scalar(node, field);
    std::string why;
    auto script = loadScript(module.scriptPath, why);
    if (!script)
        fail(node, field, why);
    module.script = std::move(script->text);
    for (auto &warning : script->warnings)
        warnings.push_back("module " + module.name + ": " + warning);
}

void readArguments(const YAML::Node &node, const std::string &field, ModuleConfig &module)
{
    if (!node.IsMap())
        fail(node, field, "expected a mapping of KEY: value");
    for (const auto &entry : node) {
        const std::string key = scalar(entry.first, field);
        const std::string value = scalar(entry.second, field + "." + key);
        if (key.empty() || key.find_first_of("#\n") != std::string::npos)
            fail(entry.first, field, "\"" + key + "\" is not a placeholder name");
        // The script's lines that hold "#" are removed before sending, so such a value would take its line.
        if (value.find('#') != std::string::npos)
            fail(entry.second, field + "." + key, "the value holds \"#\", which would remove its line");
        module.arguments.emplace_back(key, value);
    }
}

void readCredentials(const YAML::Node &node, const std::string &field, ModuleConfig &module,
                     std::vector<std::string> &warnings)
{
    if (const auto file = node["password_file"]) {
        module.passwordFile = scalar(file, field + ".password_file");
        std::string why;
        if (!checkPasswordFile(*module.passwordFile, why, warnings))
            fail(file, field + ".password_file", why);
    }
    if (const auto keyring = node["keyring"])
        module.keyring = boolean(keyring, field + ".keyring");
    if (const auto files = node["identity_files"]) {
        if (!files.IsSequence())
            fail(files, field + ".identity_files", "expected a list of key files");
        for (const auto &file : files)
            module.identityFiles.push_back(scalar(file, field + ".identity_files"));
    }
    if (!module.passwordFile && !module.keyring && module.identityFiles.empty())
        fail(node, field, "no credentials: give password_file, keyring: true or identity_files");
    if ((module.passwordFile || !module.identityFiles.empty()) && !module.user)
        fail(node, field + ".user", "a password file or keys need the user they log in as");
}

ModuleConfig readModule(const std::string &name, const YAML::Node &node, std::vector<std::string> &warnings)
{
    const std::string field = "modules." + name;
    checkKeys(node, field,
              {"script", "arguments", "user", "password_file", "keyring", "identity_files", "known_hosts",
               "host_key_policy", "timeout", "port"});
    ModuleConfig module;
    module.name = name;
    if (!node["script"])
        fail(node, field + ".script", "missing: every module runs a script");
    readScript(node["script"], field + ".script", module, warnings);
    if (const auto arguments = node["arguments"])
        readArguments(arguments, field + ".arguments", module);
    if (const auto user = node["user"])
        module.user = scalar(user, field + ".user");
    readCredentials(node, field, module, warnings);
    if (const auto knownHosts = node["known_hosts"])
        module.knownHosts = scalar(knownHosts, field + ".known_hosts");
    if (const auto policy = node["host_key_policy"])
        module.hostKeyPolicy = hostKeyPolicy(policy, field + ".host_key_policy");
    if (const auto timeout = node["timeout"]) {
        const auto seconds = parseDuration(scalar(timeout, field + ".timeout"));
        if (!seconds)
            fail(timeout, field + ".timeout", "\"" + timeout.Scalar() + "\" is not a duration such as 10s");
        module.timeout = *seconds;
    }
    if (const auto port = node["port"]) {
        const std::string text = scalar(port, field + ".port");
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), module.port);
        if (ec != std::errc() || end != text.data() + text.size() || module.port < 1 || module.port > 65535)
            fail(port, field + ".port", "\"" + text + "\" is not a port (1 to 65535)");
    }
    return module;
}

ExporterConfig readConfig(const YAML::Node &root)
{
    ExporterConfig config;
    checkKeys(root, "", {"modules", "targets"});
    const auto modules = root["modules"];
    if (!modules || !modules.IsMap() || modules.size() == 0)
        fail(modules ? modules : root, "modules", "expected at least one named module");
    for (const auto &entry : modules) {
        const std::string name = entry.first.as<std::string>();
        config.modules.emplace(name, readModule(name, entry.second, config.warnings));
    }
    std::vector<std::string> targets;
    if (const auto list = root["targets"]) {
        if (!list.IsSequence())
            fail(list, "targets", "expected a list of host names, patterns and address ranges");
        for (const auto &target : list)
            targets.push_back(scalar(target, "targets"));
    }
    std::string why;
    auto allowList = AllowList::parse(targets, why);
    if (!allowList)
        fail(root["targets"], "targets", why);
    config.targets = std::move(*allowList);
    if (targets.empty())
        config.warnings.push_back("no targets are allowed: every probe will be refused");
    return config;
}

} // namespace

std::optional<ExporterConfig> loadConfig(const std::string &path, std::string &error)
{
    try {
        return readConfig(YAML::LoadFile(path));
    } catch (const ConfigError &fault) {
        error = path + ":" + std::to_string(fault.mark.line + 1) + ": " +
                (fault.field.empty() ? std::string() : fault.field + ": ") + fault.message;
    } catch (const YAML::BadFile &) {
        error = "cannot read the configuration file " + path;
    } catch (const YAML::Exception &fault) {
        error = path + ":" + std::to_string(fault.mark.line + 1) + ": not valid YAML: " + fault.msg;
    }
    return std::nullopt;
}

std::optional<double> parseDuration(const std::string &text)
{
    double seconds = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        long number = 0;
        const auto [end, ec] = std::from_chars(text.data() + pos, text.data() + text.size(), number);
        if (ec != std::errc() || number < 0)
            return std::nullopt;
        pos = static_cast<std::size_t>(end - text.data());
        const std::size_t unitEnd = text.find_first_of("0123456789", pos);
        const std::string unit =
            text.substr(pos, unitEnd == std::string::npos ? std::string::npos : unitEnd - pos);
        static const std::map<std::string, double> scale = {{"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}};
        const auto found = scale.find(unit);
        if (found == scale.end())
            return std::nullopt;
        seconds += static_cast<double>(number) * found->second;
        pos += unit.size();
    }
    return seconds > 0 && std::isfinite(seconds) ? std::optional(seconds) : std::nullopt;
}
