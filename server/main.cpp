// kxserver: the reference storage server. See KXServerOptions.h for the command line.

#include "KXStorageServer.h"
#include "core/KXServerOptions.h"
#include "ops/KXServerLog.h"
#include "service/KXAccounts.h"
#include "service/KXShareLinks.h"
#include "store/KXMetaStore.h"

#include <QDir>

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>

namespace {

// SIGINT and SIGTERM are blocked in every thread and taken by one waiting thread, which stops
// the server from ordinary code instead of from a signal handler.
sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

int runServer(const ServerOptions& options)
{
    sigset_t stopSet = stopSignals();
    pthread_sigmask(SIG_BLOCK, &stopSet, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    CKXServerLog log;
    std::string error;
    if (!log.open(options.logFile)) {
        std::fprintf(stderr, "kxserver: cannot open log file %s\n", options.logFile.c_str());
        return 1;
    }
    CKXStorageServer server(options, log);
    if (!QDir().mkpath(QString::fromStdString(options.root)) || !server.start(&error)) {
        std::fprintf(stderr, "kxserver: %s\n",
                     error.empty() ? "cannot create the root folder" : error.c_str());
        return 1;
    }
    std::printf("listening on %s\n", server.url().c_str());
    std::fflush(stdout);
    log.line("kxserver listening on " + server.url() + ", root " + options.root);
    std::thread waiter([&server, stopSet] {
        int received = 0;
        sigwait(&stopSet, &received);
        server.stop();
    });
    bool served = server.run();
    pthread_kill(waiter.native_handle(), SIGTERM); // ends the wait when run() ended by itself
    waiter.join();
    log.line(served ? "kxserver stopped" : "kxserver could not serve");
    return served ? 0 : 1;
}

int runShare(const ServerOptions& options)
{
    CKXMetaStore meta;
    std::string error;
    if (!QDir().mkpath(QString::fromStdString(options.root)) ||
        !meta.open(options.root + "/meta.db", &error)) {
        std::fprintf(stderr, "kxserver share: %s\n",
                     error.empty() ? "cannot create the root folder" : error.c_str());
        return 1;
    }
    CKXAccounts accounts(options.tokens);
    CKXShareLinks links(meta, accounts);
    std::string space;
    ShareInfo share;
    ServerError e = CKXAccounts::spaceFor(accounts.defaultAccount(), options.sharePathType, &space);
    e = e.ok() ? links.create(accounts.defaultAccount(), space, options.sharePath, options.shareUpload,
                              options.sharePassword, &share)
               : e;
    if (!e.ok()) {
        std::fprintf(stderr, "kxserver share: %s (%s)\n", e.message.c_str(), e.code.c_str());
        return 1;
    }
    std::printf("%s\n", share.code.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    ServerOptions options;
    std::string error;
    if (!parseServerOptions(args, &options, &error)) {
        std::fprintf(stderr, "kxserver: %s\n%s", error.c_str(), serverUsage().c_str());
        return 2;
    }
    switch (options.mode) {
    case ServerOptions::Mode::Help:
        std::printf("%s", serverUsage().c_str());
        return 0;
    case ServerOptions::Mode::Share:
        return runShare(options);
    case ServerOptions::Mode::Serve:
        break;
    }
    return runServer(options);
}
