#include "FilmSteps.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryFile>

#include <opencv2/core.hpp>

#include <cstring>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// A record's header, as the process that wrote it lays it out: the file never outlives the run.
struct Header {
    qint32 step = 0;
    double lastPairTime = 0.0;
    qint32 rows = 0;
    qint32 cols = 0;
    quint32 dataBytes = 0;
};

// Most of a step's pixels saw no event, so the fastest compression already shrinks the
// record to a small part of the raw counts.
constexpr int kCompressionLevel = 1;

} // namespace

namespace FilmSteps {

Writer::Writer() = default;

Writer::~Writer() = default;

QString Writer::openTemporary(const QString& folder, const QString& name)
{
    m_temporary = std::make_unique<QTemporaryFile>(QDir(folder).filePath(QStringLiteral(".%1.XXXXXX").arg(name)));
    if (!m_temporary->open()) {
        m_error = tr("Can't create a temporary file in '%1': %2").arg(folder, m_temporary->errorString());
        return m_error;
    }
    m_out = m_temporary.get();
    return {};
}

QString Writer::open(const QString& path)
{
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        m_error = tr("Can't create file '%1': %2").arg(path, m_file.errorString());
        return m_error;
    }
    m_out = &m_file;
    return {};
}

void Writer::add(const Step& step, const cv::Mat& counts)
{
    if (!m_out || !m_error.isEmpty())
        return;
    const cv::Mat continuous = counts.isContinuous() ? counts : counts.clone();
    const QByteArray data = qCompress(reinterpret_cast<const uchar*>(continuous.data),
                                      static_cast<int>(continuous.total() * continuous.elemSize()), kCompressionLevel);
    Header header;
    header.step = step.step;
    header.lastPairTime = step.lastPairTime;
    header.rows = counts.rows;
    header.cols = counts.cols;
    header.dataBytes = static_cast<quint32>(data.size());
    if (data.isEmpty() || m_out->write(reinterpret_cast<const char*>(&header), sizeof header) != sizeof header
        || m_out->write(data) != data.size())
        m_error = tr("Can't write the film's steps to '%1': %2").arg(m_out->fileName(), m_out->errorString());
}

QString Writer::finish()
{
    if (m_out && m_error.isEmpty() && !m_out->flush())
        m_error = tr("Can't write the film's steps to '%1': %2").arg(m_out->fileName(), m_out->errorString());
    return m_error;
}

QString Writer::path() const
{
    return m_out ? m_out->fileName() : QString();
}

Reader::Reader(const QString& path)
    : m_path(path)
{
}

bool Reader::next()
{
    if (!m_error.isEmpty())
        return false;
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(m_offset)) {
        m_error = tr("Can't read the film's steps from '%1'").arg(m_path);
        return false;
    }
    Header header;
    const qint64 read = file.read(reinterpret_cast<char*>(&header), sizeof header);
    if (read == 0)
        return false;
    if (read != sizeof header || header.rows <= 0 || header.cols <= 0
        || m_offset + static_cast<qint64>(sizeof header) + header.dataBytes > file.size()) {
        m_error = tr("Can't read the film's steps from '%1'").arg(m_path);
        return false;
    }
    m_step = {header.step, header.lastPairTime};
    m_rows = header.rows;
    m_cols = header.cols;
    m_dataOffset = m_offset + static_cast<qint64>(sizeof header);
    m_dataBytes = header.dataBytes;
    m_offset = m_dataOffset + header.dataBytes;
    return true;
}

bool Reader::addTo(cv::Mat& sum, int sign)
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(m_dataOffset)) {
        m_error = tr("Can't read the film's steps from '%1'").arg(m_path);
        return false;
    }
    const QByteArray data = qUncompress(file.read(m_dataBytes));
    const auto expected = static_cast<qint64>(m_rows) * m_cols * static_cast<qint64>(sizeof(quint16));
    if (data.size() != expected || sum.rows != m_rows || sum.cols != m_cols || sum.type() != CV_32SC1) {
        m_error = tr("Can't read the film's steps from '%1'").arg(m_path);
        return false;
    }
    const cv::Mat counts(m_rows, m_cols, CV_16UC1, const_cast<char*>(data.constData()));
    if (sign >= 0)
        cv::add(sum, counts, sum, cv::noArray(), CV_32S);
    else
        cv::subtract(sum, counts, sum, cv::noArray(), CV_32S);
    return true;
}

} // namespace FilmSteps
