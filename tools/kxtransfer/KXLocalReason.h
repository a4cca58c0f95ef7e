#pragma once

// Why a download could not write its file, in the system's words, for the error line of a failure
// whose engine message names neither the path nor the reason. Reads the file system only; safe on
// any thread.

#include <QString>

class CKXLocalReason
{
public:
    // "<path>: <reason>", or just the path when no reason can be found: the nearest existing folder
    // of the path is not a folder or cannot be written, or another download holds a temporary file
    // of the same target.
    static QString describe(const QString& path);

private:
    static QString folderProblem(const QString& path);
    static bool tmpFileHeldElsewhere(const QString& path);
};
