#pragma once

// Shows the progress of one transfer at a time on stdout: on a terminal one line redrawn in place
// (name, percent, bytes, rate, time left); otherwise a plain line every second; nothing when
// quiet. The rate is measured over the last few seconds, so it follows speed changes and ignores
// bytes that a resumed transfer had already done. Main thread only; no locks.

#include <QElapsedTimer>
#include <QList>
#include <QPair>
#include <QString>

#include <cstdio>

class CKXProgressPrinter
{
public:
    enum Mode
    {
        Terminal,
        Plain,
        Quiet,
    };

    explicit CKXProgressPrinter(Mode mode, FILE* out = stdout);
    // Terminal when stdout is one, Quiet when asked for.
    static Mode detect(bool quiet);

    void begin(const QString& name, qint64 total);
    // done and total so far; total <= 0 while unknown. Cheap to call often.
    void update(qint64 done, qint64 total);
    // The name shown from the next line on, keeping the rate measured so far.
    void rename(const QString& name) { m_name = name; }
    // Shows the latest figures if they were held back, and ends a terminal line.
    void end();

    Mode mode() const { return m_mode; }

    static QString formatBytes(qint64 bytes);
    static QString formatDuration(qint64 seconds);
    // One progress text; rate < 0 while unknown.
    static QString formatLine(const QString& name, qint64 done, qint64 total, double rate);

private:
    double rate() const;
    void draw(qint64 done, qint64 total);

    Mode m_mode;
    FILE* m_out;
    QString m_name;
    QElapsedTimer m_clock;
    QList<QPair<qint64, qint64>> m_samples; // (ms, bytes) of the last seconds
    qint64 m_lastDrawMs = -1;
    qint64 m_lastDone = 0;
    qint64 m_lastTotal = 0;
    bool m_pending = false;       // figures newer than the last drawn line
    bool m_awaitingFirst = false; // no bytes reported yet since begin()
    bool m_lineOpen = false;
};
