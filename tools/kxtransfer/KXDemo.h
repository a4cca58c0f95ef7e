#pragma once

// `kxtransfer demo`: shows the engine at work with no set-up. Starts a private kxserver in a
// temporary folder, points the engine's data at another, makes a small and a large random file,
// uploads and downloads both, uploads the large one again under another name (a quick transfer:
// the server already holds every block), checks every byte by SHA-256, prints a summary and
// cleans up. Owns the engine's lifetime for its run. Main thread only.

#include "KXProgressPrinter.h"

#include <QList>
#include <QString>

class CKXDemoServer;
class CKXTransferRunner;
struct KXTransferJob;

class CKXDemo
{
public:
    explicit CKXDemo(CKXProgressPrinter::Mode mode);

    // 0 when every step worked and every file verified; 130 when paused by Ctrl-C; else 1.
    int run();
    // A transfer thread outlived a pause: the process should leave without tearing down.
    bool threadsBusy() const { return m_busy; }

    // One line of the summary.
    struct Step
    {
        QString title;
        qint64 size = 0;
        qint64 ms = 0;
        qint64 wireBytes = -1; // block and file bytes the server received or sent; -1 unknown
        int blocks = 0;        // blocks of the file (0: sent whole)
        int blocksSent = -1;   // blocks the server received; -1 unknown or not an upload
        bool quick = false;
        QString check;
        bool ok = false;
    };

    static QString summaryTable(const QList<Step>& steps);

private:
    int runIn(const QString& base);
    bool makeFile(const QString& path, qint64 size, quint32 seed, QByteArray& sha256);
    bool transfer(CKXDemoServer& server, CKXTransferRunner& runner, const KXTransferJob& job, Step& step);
    bool verify(const QString& path, const QByteArray& expected, Step& step);
    void fail(const QString& message);

    CKXProgressPrinter::Mode m_mode;
    bool m_busy = false;
    bool m_paused = false;
    QList<Step> m_steps;
};
