#pragma once

// The engine logs into folders found from XDG_DATA_HOME and HOME; a fuzzer points both at a fresh
// folder of its own before the first input, so that nothing lands in the real home folder, and
// removes that folder when it exits. Included once by each fuzz target, which this header gives
// its libFuzzer initialisation.

#include <QByteArray>
#include <QDir>
#include <QtGlobal>

#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    static char folder[] = "/tmp/kx-fuzz-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        return 0;
    }
    qputenv("XDG_DATA_HOME", QByteArray(folder) + "/data");
    qputenv("HOME", QByteArray(folder));
    std::atexit([] { QDir(QString::fromLocal8Bit(folder)).removeRecursively(); });
    return 0;
}

// An invariant of the code under test is broken: stop with a report libFuzzer keeps as a crash.
#define KX_FUZZ_CHECK(condition)                                                                             \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            qFatal("fuzz check failed: %s (%s:%d)", #condition, __FILE__, __LINE__);                         \
        }                                                                                                    \
    } while (0)
