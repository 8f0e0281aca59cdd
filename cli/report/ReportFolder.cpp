#include "ReportFolder.h"

#include "OutputFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

bool holdsReport(const QDir& folder)
{
    QFile page(folder.filePath(QStringLiteral("index.html")));
    return page.open(QIODevice::ReadOnly) && page.read(4096).contains(ReportFolder::kGeneratorMark);
}

bool isEmptyFolder(const QDir& folder)
{
    return folder.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot).isEmpty();
}

} // namespace

QString ReportFolder::refusal(const QString& folder, bool overwrite)
{
    // "file/." names the file itself once cleaned, as the report would be published.
    const QString cleaned = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    if (!OutputFile::existsOrDangles(cleaned))
        return {};
    const QFileInfo info(cleaned);
    if (!info.isDir())
        return tr("Report folder '%1' is a file; not replaced").arg(folder);
    const QDir dir(info.filePath());
    if (isEmptyFolder(dir))
        return {};
    if (!holdsReport(dir))
        return tr("Report folder '%1' holds other files; choose an empty or new folder").arg(folder);
    if (!overwrite)
        return tr("Report folder '%1' holds a report; not replaced (--overwrite replaces it)").arg(folder);
    return {};
}

ReportFolder::ReportFolder(const QString& folder)
    : m_folder(QDir::cleanPath(QFileInfo(folder).absoluteFilePath()))
{
}

ReportFolder::~ReportFolder() = default;

bool ReportFolder::prepare(QString* error)
{
    const QFileInfo target(m_folder);
    const QString parent = target.absolutePath();
    if (QDir().mkpath(parent)) {
        m_staging = std::make_unique<QTemporaryDir>(parent + QStringLiteral("/.") + target.fileName()
                                                    + QStringLiteral(".part-XXXXXX"));
        if (m_staging->isValid() && QDir(m_staging->path()).mkpath(QStringLiteral("maps"))
            && QDir(m_staging->path()).mkpath(QStringLiteral("data")))
            return true;
    }
    m_staging.reset();
    *error = tr("Can't write report folder '%1'; the maps are written without it").arg(m_folder);
    return false;
}

QString ReportFolder::stagingPath() const
{
    return m_staging ? m_staging->path() : QString();
}

QString ReportFolder::publish()
{
    if (!m_staging)
        return tr("Can't write report folder '%1'").arg(m_folder);
    // The folder may have changed during the run; what it holds now decides.
    const QString refused = refusal(m_folder, true);
    if (!refused.isEmpty())
        return refused;
    const QString staging = m_staging->path();
    QString old;
    if (QFileInfo::exists(m_folder)) {
        old = staging + QStringLiteral(".old");
        if (!QDir().rename(m_folder, old))
            return tr("Can't replace report folder '%1'").arg(m_folder);
    }
    if (!QDir().rename(staging, m_folder)) {
        if (!old.isEmpty())
            QDir().rename(old, m_folder);
        return tr("Can't write report folder '%1'").arg(m_folder);
    }
    m_staging->setAutoRemove(false);
    m_staging.reset();
    if (!old.isEmpty())
        QDir(old).removeRecursively();
    // QTemporaryDir makes its folder for its owner only; a report is read like any document.
    QFile::setPermissions(m_folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                        | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther
                                        | QFileDevice::ExeOther);
    return {};
}
