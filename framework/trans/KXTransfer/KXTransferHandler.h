#pragma once

// The finishing thread: a long-lived thread with an event loop on which CKXTransColletion lives
// and deletes finished transfers. Created, started, ended and deleted by CKXTransferManager.

#include "KXTFBaseThread.h"

#include <QMutex>

class CKXTransColletion;

class CKXTransferHandler : public CKXTFBaseThread
{
    Q_OBJECT
public:
    CKXTransferHandler() = default;
    ~CKXTransferHandler() override;

    // The collection, created on first use. run() creates it on this thread before any
    // transfer can be filed, so that its slot is queued here.
    CKXTransColletion* getTransCollection();

protected:
    void run() override;

private:
    CKXTransColletion* m_collection = nullptr; // guarded by m_mutex; lives on this thread
    QMutex m_mutex;
};
