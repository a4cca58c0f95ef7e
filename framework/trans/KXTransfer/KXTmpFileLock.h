#pragma once

// An exclusive lock on the temporary file of a download, held from its creation until it has been
// moved into place, so that a second download of the same task (another process writing the same
// target) is refused instead of writing into the same file. The lock is the operating system's
// (flock): it ends with the holder's process, so the temporary file of a killed run can be resumed.
//
// Owned by the transfer that downloads; used by one thread at a time (the transfer's own, or the
// client's in del() once the transfer's run() has returned).

#include <QString>

class CKXTmpFileLock
{
public:
    CKXTmpFileLock() = default;
    ~CKXTmpFileLock();
    CKXTmpFileLock(const CKXTmpFileLock&) = delete;
    CKXTmpFileLock& operator=(const CKXTmpFileLock&) = delete;

    // Creates the file (and its folders) when missing and locks it. False, with the system's error
    // number in `error`, when it cannot be had; EWOULDBLOCK when another holder has it.
    bool acquire(const QString& path, int& error);
    void release();
    bool isHeld() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};
