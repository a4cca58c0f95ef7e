#include "KXServerOptions.h"

#include <cerrno>
#include <cstdlib>

namespace {

bool toInteger(const std::string& text, qint64 min, qint64 max, qint64* out)
{
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) {
        return false;
    }
    *out = value;
    return true;
}

bool parseListen(const std::string& text, ServerOptions* out)
{
    size_t colon = text.rfind(':');
    qint64 port = 0;
    if (colon == std::string::npos || colon == 0 || !toInteger(text.substr(colon + 1), 0, 65535, &port)) {
        return false;
    }
    out->listenHost = text.substr(0, colon);
    out->listenPort = static_cast<int>(port);
    return true;
}

bool parseSync(const std::string& text, ServerOptions::Sync* out)
{
    if (text == "none") {
        *out = ServerOptions::Sync::None;
    } else if (text == "commit") {
        *out = ServerOptions::Sync::Commit;
    } else if (text == "block") {
        *out = ServerOptions::Sync::Block;
    } else {
        return false;
    }
    return true;
}

// Applies one "--name value" or "--flag"; false when the option is unknown or its value bad.
bool applyOption(const std::string& name, const std::string& value, ServerOptions* out)
{
    qint64 number = 0;
    if (name == "--root") {
        out->root = value;
    } else if (name == "--listen") {
        return parseListen(value, out);
    } else if (name == "--token") {
        out->tokens.push_back(value);
    } else if (name == "--quota") {
        if (!toInteger(value, 0, INT64_MAX, &number)) {
            return false;
        }
        out->quota = number;
    } else if (name == "--threads") {
        if (!toInteger(value, 1, 1024, &number)) {
            return false;
        }
        out->threads = static_cast<int>(number);
    } else if (name == "--upload-expiry") {
        if (!toInteger(value, 1, INT64_MAX / 1000, &number)) {
            return false;
        }
        out->uploadExpiry = number;
    } else if (name == "--sync") {
        return parseSync(value, &out->sync);
    } else if (name == "--tls-cert") {
        out->tlsCert = value;
    } else if (name == "--tls-key") {
        out->tlsKey = value;
    } else if (name == "--admin-token") {
        out->adminToken = value;
    } else if (name == "--public-url") {
        out->publicUrl = value;
    } else if (name == "--deny-suffix") {
        out->denySuffixes.push_back(value);
    } else if (name == "--log") {
        out->logFile = value;
    } else if (name == "--path") {
        out->sharePath = value;
    } else if (name == "--password") {
        out->sharePassword = value;
    } else if (name == "--pathtype") {
        out->sharePathType = value;
    } else {
        return false;
    }
    return true;
}

bool validate(ServerOptions* out, std::string* error)
{
    if (out->tokens.empty()) {
        out->tokens.push_back("kx-dev-token");
    }
    if (out->root.empty()) {
        *error = "--root is required";
    } else if (out->mode == ServerOptions::Mode::Share && out->sharePath.empty()) {
        *error = "share needs --path";
    } else if (out->tlsCert.empty() != out->tlsKey.empty()) {
        *error = "--tls-cert and --tls-key go together";
    } else {
        return true;
    }
    return false;
}

} // namespace

bool parseServerOptions(const std::vector<std::string>& args, ServerOptions* out, std::string* error)
{
    size_t i = 0;
    if (!args.empty() && args[0] == "share") {
        out->mode = ServerOptions::Mode::Share;
        i = 1;
    }
    for (; i < args.size(); ++i) {
        const std::string& name = args[i];
        if (name == "--help" || name == "-h") {
            out->mode = ServerOptions::Mode::Help;
            return true;
        }
        if (name == "--upload") {
            out->shareUpload = true;
            continue;
        }
        if (i + 1 >= args.size() || !applyOption(name, args[i + 1], out)) {
            *error = "bad option or value: " + name;
            return false;
        }
        ++i;
    }
    return validate(out, error);
}

std::string serverUsage()
{
    return "usage: kxserver --root DIR [--listen HOST:PORT] [--token T]... [--quota BYTES]\n"
           "                [--tls-cert FILE --tls-key FILE] [--admin-token T] [--public-url URL]\n"
           "                [--deny-suffix SUFFIX]... [--log FILE] [--threads N]\n"
           "                [--sync none|commit|block]   (default commit: see docs/protocol.md)\n"
           "                [--upload-expiry SECONDS]    (idle upload sessions; default 86400)\n"
           "       kxserver share --root DIR --path /folder [--upload] [--password P]\n"
           "                [--pathtype self|ent] [--token T]\n";
}
