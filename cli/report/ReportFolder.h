#pragma once

#include <QString>

#include <memory>

class QTemporaryDir;

// Where a report is put together and how it takes the place of its folder. The page and its
// files are written into a staging folder beside the report's folder, which becomes the
// report's folder only once complete: an interrupted or failed run leaves an earlier report
// as it was. Driving thread only, except stagingPath(), which may be read from any thread once
// prepare() has returned.
class ReportFolder {
public:
    // The marker the page carries, by which a folder is known to hold an earlier report.
    static constexpr const char* kGeneratorMark = "<meta name=\"generator\" content=\"tremora-map\">";

    // Why `folder` cannot take a report, checked before any analysis: it holds an earlier
    // report and `overwrite` is off, or it holds files that are not a report (which are never
    // replaced). Empty when it may. Reads the file system only.
    static QString refusal(const QString& folder, bool overwrite);

    explicit ReportFolder(const QString& folder);
    ~ReportFolder();

    // Makes the staging folder (and the report's parent folders); false, with `error`
    // naming the folder, when they cannot be made or written.
    bool prepare(QString* error);
    QString stagingPath() const;
    // The report's folder as an absolute path.
    QString finalPath() const { return m_folder; }

    // Puts the staging folder in the report folder's place, replacing an earlier report or an
    // empty folder. The error, empty on success.
    QString publish();

private:
    QString m_folder;
    std::unique_ptr<QTemporaryDir> m_staging;
};
