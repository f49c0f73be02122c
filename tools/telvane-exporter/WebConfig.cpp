#include "WebConfig.h"

#include <Telvane/TelvaneSecret.h>

#include <crypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

std::optional<std::string> decodeBase64(const std::string &text)
{
    if (text.empty() || text.size() % 4 != 0)
        return std::nullopt;
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                        reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
    if (length < 0)
        return std::nullopt;
    // EVP_DecodeBlock counts the padding as bytes of zeros.
    const std::size_t padding = text.size() - text.find_last_not_of('=') - 1;
    bytes.resize(static_cast<std::size_t>(length) - std::min<std::size_t>(padding, 2));
    return bytes;
}

// Whether @p password hashes to @p hash, in time that does not tell how much of it matched.
bool bcryptMatches(const std::string &password, const std::string &hash)
{
    auto data = std::make_unique<crypt_data>(); // large, and cleared: crypt_r wants it zeroed
    const char *computed = ::crypt_r(password.c_str(), hash.c_str(), data.get());
    const bool matches = computed && computed[0] != '*' && std::strlen(computed) == hash.size() &&
                         CRYPTO_memcmp(computed, hash.data(), hash.size()) == 0;
    OPENSSL_cleanse(data.get(), sizeof *data);
    return matches;
}

struct FieldError
{
    YAML::Mark mark;
    std::string field, message;
};

std::string scalar(const YAML::Node &node, const std::string &field)
{
    if (!node.IsScalar())
        throw FieldError{node.Mark(), field, "expected a single value"};
    return node.Scalar();
}

void checkKeys(const YAML::Node &map, const std::string &field, std::initializer_list<const char *> known)
{
    if (!map.IsMap())
        throw FieldError{map.Mark(), field, "expected a mapping"};
    for (const auto &entry : map) {
        const std::string key = entry.first.as<std::string>();
        if (std::none_of(known.begin(), known.end(), [&](const char *name) { return key == name; }))
            throw FieldError{entry.first.Mark(), field.empty() ? key : field + "." + key, "unknown field"};
    }
}

std::string besideFile(const std::string &path, const std::string &name)
{
    const auto slash = path.rfind('/');
    return name.empty() || name.front() == '/' || slash == std::string::npos
               ? name
               : path.substr(0, slash + 1) + name;
}

WebConfig readWebConfig(const YAML::Node &root, const std::string &path)
{
    WebConfig config;
    if (root.IsNull())
        return config;
    checkKeys(root, "", {"tls_server_config", "basic_auth_users"});
    if (const auto tls = root["tls_server_config"]) {
        checkKeys(tls, "tls_server_config", {"cert_file", "key_file"});
        if (!tls["cert_file"] || !tls["key_file"])
            throw FieldError{tls.Mark(), "tls_server_config", "needs both cert_file and key_file"};
        config.certFile = besideFile(path, scalar(tls["cert_file"], "tls_server_config.cert_file"));
        config.keyFile = besideFile(path, scalar(tls["key_file"], "tls_server_config.key_file"));
    }
    if (const auto users = root["basic_auth_users"]) {
        if (!users.IsMap())
            throw FieldError{users.Mark(), "basic_auth_users",
                             "expected a mapping of user names to bcrypt hashes"};
        for (const auto &entry : users) {
            const std::string user = entry.first.as<std::string>();
            const std::string hash = scalar(entry.second, "basic_auth_users." + user);
            if (hash.rfind("$2", 0) != 0 || hash.size() != 60)
                throw FieldError{entry.second.Mark(), "basic_auth_users." + user, "expected a bcrypt hash"};
            config.users.emplace(user, hash);
        }
    }
    return config;
}

} // namespace

bool WebConfig::authorizes(const std::string &header) const
{
    if (users.empty())
        return true;
    if (header.rfind("Basic ", 0) != 0)
        return false;
    auto decoded = decodeBase64(header.substr(6));
    if (!decoded)
        return false;
    const auto colon = decoded->find(':');
    const auto user = colon == std::string::npos ? users.end() : users.find(decoded->substr(0, colon));
    std::string password = colon == std::string::npos ? std::string() : decoded->substr(colon + 1);
    const bool matches = user != users.end() && bcryptMatches(password, user->second);
    telvaneWipe(password);
    telvaneWipe(*decoded);
    return matches;
}

std::optional<WebConfig> loadWebConfig(const std::string &path, std::string &error)
{
    try {
        return readWebConfig(YAML::LoadFile(path), path);
    } catch (const FieldError &fault) {
        error = path + ":" + std::to_string(fault.mark.line + 1) + ": " +
                (fault.field.empty() ? std::string() : fault.field + ": ") + fault.message;
    } catch (const YAML::BadFile &) {
        error = "cannot read the web configuration file " + path;
    } catch (const YAML::Exception &fault) {
        error = path + ":" + std::to_string(fault.mark.line + 1) + ": not valid YAML: " + fault.msg;
    }
    return std::nullopt;
}
