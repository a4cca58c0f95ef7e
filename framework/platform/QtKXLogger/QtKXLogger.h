#pragma once

// A small thread-safe file logger. One handle stands for one log file; any number of threads may
// write to any handle at once. Each line carries a millisecond timestamp, the level and the id of
// the writing thread. Files rotate by size (file.log -> file.log.1 -> ... ). Error and fatal lines
// are flushed to the operating system at once so that they survive a crash of the process.
//
// A line reads "2026-11-21 22:57:17.123 [FATAL] [tid 12345] text" (local time, level DEBUG, INFO,
// ERROR or FATAL, kernel thread id). Line breaks inside the text are written as "\n" and "\r" so
// that one entry stays one line. Debug and information lines are buffered in memory and reach the
// file when 64 KiB have gathered, when an error or fatal line follows, when a line comes more than
// a second after the last write, at destroy() and at process exit. Lines are handed to the file
// whole, in one write on an appending descriptor, so they never interleave. A line the disk
// refuses (disk full) is dropped; logging never fails the caller.

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

// Registers a log file and returns its handle (> 0; 0 for an empty path). Creating the same path
// twice gives the same handle while it is not destroyed. Handles are never reused. The file and its
// parent folders are created by init(); lines written before init() are ignored.
QTKXLOGGER_EXPORT int create(const QString& path);

// Opens the file for appending, creating parent folders. Returns false when it cannot be opened.
// Calling it again on an initialised handle does nothing and returns true.
QTKXLOGGER_EXPORT bool init(int handle);

// Lines below `level` are dropped. Default: LevelDebug.
QTKXLOGGER_EXPORT void setLevel(int handle, Level level);

// Rotation: when the file grows past `maxBytes`, it is renamed to .1 (older ones shift up) and a
// new file is started; at most `keepFiles` old files are kept (0: the full file is simply
// discarded). A file is rotated before a line would take it past `maxBytes`, so only a single
// line longer than that makes a bigger file. `maxBytes` <= 0 turns rotation off.
// Default: 10 MiB, 5 files.
QTKXLOGGER_EXPORT void setRotation(int handle, qint64 maxBytes, int keepFiles);

QTKXLOGGER_EXPORT void debug(int handle, const QString& text);
QTKXLOGGER_EXPORT void information(int handle, const QString& text);
QTKXLOGGER_EXPORT void error(int handle, const QString& text);
QTKXLOGGER_EXPORT void fatal(int handle, const QString& text);

// Flushes and closes the file; the handle becomes invalid. Writing to an invalid handle is ignored.
QTKXLOGGER_EXPORT void destroy(int handle);

} // namespace QtKXLogger
