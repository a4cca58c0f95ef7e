#pragma once

// A small thread-safe file logger. One handle stands for one log file; any number of threads may
// write to any handle at once. Each line carries a millisecond timestamp, the level and the id of
// the writing thread. Files rotate by size (file.log -> file.log.1 -> ... ). Error and fatal lines
// are flushed to the operating system at once so that they survive a crash of the process.

#include "qtkxlogger_export.h"

#include <QString>

namespace QtKXLogger {

enum Level
{
    LevelDebug = 0,
    LevelInformation = 1,
    LevelError = 2,
    LevelFatal = 3,
};

// Registers a log file and returns its handle (> 0). Creating the same path twice gives the same
// handle. The file and its parent folders are created by init().
QTKXLOGGER_EXPORT int create(const QString& path);

// Opens the file for appending, creating parent folders. Returns false when it cannot be opened.
// Calling it again on an initialised handle does nothing and returns true.
QTKXLOGGER_EXPORT bool init(int handle);

// Lines below `level` are dropped. Default: LevelDebug.
QTKXLOGGER_EXPORT void setLevel(int handle, Level level);

// Rotation: when the file grows past `maxBytes`, it is renamed to .1 (older ones shift up) and a
// new file is started; at most `keepFiles` old files are kept. Default: 10 MiB, 5 files.
QTKXLOGGER_EXPORT void setRotation(int handle, qint64 maxBytes, int keepFiles);

QTKXLOGGER_EXPORT void debug(int handle, const QString& text);
QTKXLOGGER_EXPORT void information(int handle, const QString& text);
QTKXLOGGER_EXPORT void error(int handle, const QString& text);
QTKXLOGGER_EXPORT void fatal(int handle, const QString& text);

// Flushes and closes the file; the handle becomes invalid. Writing to an invalid handle is ignored.
QTKXLOGGER_EXPORT void destroy(int handle);

} // namespace QtKXLogger
