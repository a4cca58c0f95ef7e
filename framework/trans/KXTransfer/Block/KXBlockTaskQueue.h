#pragma once

// One stage of a chunked transfer's blocks (waiting, running, complete, error or paused): the blocks
// in order of arrival plus an index by block id.
//
// Not thread-safe and not an owner: the block manager guards each queue with its own mutex, and the
// chunked transfer owns the blocks. Clearing or destroying a queue never deletes a block.

#include <QList>
#include <QMap>
#include <QString>

class CKXBlockTask;

class CKXBlockTaskQueue
{
public:
    // Appends even when a block with the same id is queued already; the index keeps the last one.
    bool addTask(CKXBlockTask* task);
    bool addTasks(const QList<CKXBlockTask*>& tasks);
    // The first block; the queue must not be empty.
    CKXBlockTask* getOneTask() const;
    // The first n blocks, or all of them when n <= 0 or fewer than n are queued.
    QList<CKXBlockTask*> getTask(int n) const;
    // Drops the first entry of that pointer, then the index entry under the block's id.
    void removeTask(CKXBlockTask* task);
    CKXBlockTask* getTask(const QString& id) const;
    bool isExistTask(const QString& id) const;
    bool IsEmpty() const;
    // The id of the first queued block with the same id as `task`, or "" when none.
    QString getSameTask(CKXBlockTask* task) const;
    int getCount() const;
    void clear();

private:
    QList<CKXBlockTask*> m_list;
    QMap<QString, CKXBlockTask*> m_index;
};
