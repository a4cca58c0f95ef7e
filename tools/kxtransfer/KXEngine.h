#pragma once

// Setting up and closing down the transfer engine and the server-API library for one run of the
// tool. All static; call from the main thread only. setUp() must come before the first transfer.

#include <QString>

struct KXEngineSettings
{
    QString server; // base address of every request; may be empty for plain-address downloads
    QString token;
    int jobs = 4;     // blocks in flight per chunked file
    qint64 limit = 0; // bytes per second and direction, 0: unlimited
    int timeout = 0;  // seconds without a byte before a request gives up, 0: the library's default
};

class CKXEngine
{
public:
    static void setUp(const KXEngineSettings& settings);
    // Lets the engine and the server-API library go. Only when no transfer thread is left running:
    // a live worker would touch what this frees.
    static void shutDown();
};
