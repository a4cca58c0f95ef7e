#pragma once

// Command line of kxserver:
//   kxserver --root DIR [--listen HOST:PORT] [--token T]... [--quota BYTES] [--tls-cert F --tls-key F]
//            [--admin-token T] [--public-url URL] [--deny-suffix S]... [--log FILE] [--threads N]
//            [--sync none|commit|block] [--upload-expiry SECONDS]
//   kxserver share --root DIR --path /folder [--upload] [--password P] [--pathtype self|ent] [--token T]

#include <QtGlobal>

#include <string>
#include <vector>

struct ServerOptions
{
    enum class Mode
    {
        Serve,
        Share,
        Help
    };

    // Where the server promises that what it acknowledged survives a power loss:
    //   Commit: a committed file (its blocks and metadata) is on disk when the commit is answered;
    //           blocks sent before it are written but not forced out (the default);
    //   Block:  every stored block is on disk before its upload is answered;
    //   None:   nothing is forced out, as a plain web server's PUT.
    enum class Sync
    {
        None,
        Commit,
        Block
    };

    Mode mode = Mode::Serve;
    std::string root;
    std::string listenHost = "127.0.0.1";
    int listenPort = 8080;
    std::vector<std::string> tokens; // accepted session tokens; the first one is the default account
    qint64 quota = 0;                // bytes per space; 0: unlimited
    std::string tlsCert;
    std::string tlsKey;
    std::string adminToken; // empty: no /admin and no test hooks
    std::string publicUrl;  // empty: the address really listened on
    std::vector<std::string> denySuffixes;
    std::string logFile; // empty: stderr
    int threads = 64;
    Sync sync = Sync::Commit;
    // An upload session idle this long is dropped, and the blocks only it held are collected.
    qint64 uploadExpiry = 24 * 3600;

    // share subcommand
    std::string sharePath;
    std::string sharePathType = "self";
    std::string sharePassword;
    bool shareUpload = false;
};

// Fills `out` from argv (without the program name). On a bad command line returns false with a
// message in `error`.
bool parseServerOptions(const std::vector<std::string>& args, ServerOptions* out, std::string* error);
std::string serverUsage();
