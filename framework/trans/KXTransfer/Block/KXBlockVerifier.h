#pragma once

// Checks the blocks an earlier run recorded against the bytes on disk now, before they count as
// done again: an upload's source may have been edited in place (same size, same time), a
// download's temporary file changed or cut short. Committing or publishing such a block would
// make a file that never existed. Every block is hashed at once, one thread per core; the calling
// thread waits for them. Stateless; the blocks are read, never changed.

#include <QList>
#include <QString>

class CKXBlockTask;

class CKXBlockVerifier
{
public:
    // The blocks among `blocks` whose recorded hash no longer matches their range of the file at
    // `path` (all of them when it cannot be read). Only blocks with a hash are checked; for a
    // download only completed ones, whose hash is the fingerprint of the bytes they wrote.
    static QList<CKXBlockTask*> changedBlocks(const QList<CKXBlockTask*>& blocks, const QString& path,
                                              bool upload);
};
