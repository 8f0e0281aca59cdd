#pragma once

#include <QByteArray>
#include <QSaveFile>
#include <QString>

// Writing a file a user keeps: under a temporary name beside the target, renamed into place
// only once complete, and never over a file that is there unless the run was asked to
// replace it (--overwrite). Reentrant: any thread, as long as no two calls write one file.
namespace OutputFile {

// Whether `path` names a file, or a link whose target is missing: either way, writing there
// would replace something a user has.
bool existsOrDangles(const QString& path);

// The error of a file left in place because the run was not asked to replace it.
QString notReplacedError(const QString& path);

// The error of a file that could not be written.
QString saveError(const QString& path);

// Writes `bytes` to `path` as a whole or not at all, replacing a file there (or a dangling
// link) only with `overwrite`. The error, empty on success; a failed write leaves what was
// at `path` as it was and no temporary file behind.
QString write(const QString& path, const QByteArray& bytes, bool overwrite);

// Puts `file`, written as it grew, in place of `path`, replacing a file there only with
// `overwrite`; otherwise drops it. The error, empty when the file is in place.
QString commit(QSaveFile& file, const QString& path, bool overwrite);

} // namespace OutputFile
