#include "MapTool.h"

#include "CombinedRun.h"
#include "MapRun.h"
#include "MapToolOptions.h"
#include "MaskFile.h"
#include "OutputPlan.h"
#include "ProgressOutput.h"
#include "ReportFolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QIODevice>
#include <QThread>

extern "C" {
#include <libavutil/log.h>
}

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

void print(QIODevice& device, const QString& text)
{
    device.write(text.toLocal8Bit());
}

int usageError(QIODevice& err, const QString& message)
{
    print(err, QStringLiteral("tremora-map: %1\n").arg(message)
                   + tr("Try 'tremora-map --help' for more information.") + QLatin1Char('\n'));
    return MapRun::kExitUsage;
}

ProgressOutput::Style styleFor(const MapToolOptions& options, const MapTool::Console& console)
{
    if (options.quiet)
        return ProgressOutput::Style::Quiet;
    return console.errIsTerminal ? ProgressOutput::Style::Live : ProgressOutput::Style::Lines;
}

int runMaps(const MapToolOptions& options, const cv::Mat& mask, const MapTool::Console& console,
            const std::atomic<int>& cancel)
{
    // The stream description FFmpeg prints for every opened file would bury the tool's own
    // lines and break the redrawn progress block; its errors still come through.
    av_log_set_level(AV_LOG_ERROR);
    ProgressOutput output(console.err, styleFor(options, console), console.terminalWidth);
    if (!options.outputDir.isEmpty() && !QDir().mkpath(options.outputDir)) {
        output.error(tr("Can't create folder '%1'").arg(options.outputDir));
        return MapRun::kExitFailure;
    }
    const auto runWith = [&](ReportFolder* report) {
        if (!options.combineName.isEmpty())
            return CombinedRun::run(options, output, cancel, mask, report);
        return MapRun::run(options, OutputPlan::plan(options), output, cancel, mask, report);
    };
    if (options.reportDir.isEmpty())
        return runWith(nullptr);
    // A report that cannot be written costs the run its success, not its maps.
    ReportFolder report(options.reportDir);
    QString reportError;
    if (!report.prepare(&reportError))
        output.error(reportError);
    const int status = runWith(reportError.isEmpty() ? &report : nullptr);
    return reportError.isEmpty() || status != MapRun::kExitSuccess ? status : MapRun::kExitFailure;
}

} // namespace

namespace MapTool {

int run(const QStringList& arguments, Console console, const std::atomic<int>& cancel)
{
    const ParsedCommandLine parsed = MapToolCommandLine::parse(arguments, QThread::idealThreadCount());
    switch (parsed.action) {
    case ParsedCommandLine::Action::UsageError:
        return usageError(console.err, parsed.error);
    case ParsedCommandLine::Action::ShowHelp:
        print(console.out, MapToolCommandLine::helpText());
        return MapRun::kExitSuccess;
    case ParsedCommandLine::Action::ShowVersion:
        print(console.out, MapToolCommandLine::versionText() + QLatin1Char('\n'));
        return MapRun::kExitSuccess;
    case ParsedCommandLine::Action::Run:
        break;
    }
    // A report folder that holds something not to be replaced is found before any analysis.
    if (!parsed.options.reportDir.isEmpty()) {
        const QString refused = ReportFolder::refusal(parsed.options.reportDir, parsed.options.overwrite);
        if (!refused.isEmpty())
            return usageError(console.err, refused);
    }
    // A mask that cannot be used is a usage error, found before any file is touched.
    cv::Mat mask;
    if (!parsed.options.maskPath.isEmpty()) {
        QString error;
        mask = MaskFile::load(parsed.options.maskPath, &error);
        if (mask.empty())
            return usageError(console.err, error);
    }
    // So are zones that cannot be used.
    MapToolOptions options = parsed.options;
    if (!options.zonesPath.isEmpty()) {
        QString error;
        options.zones = ZoneFile::load(options.zonesPath, &error);
        if (options.zones.empty())
            return usageError(console.err, error);
    }
    return runMaps(options, mask, console, cancel);
}

} // namespace MapTool
