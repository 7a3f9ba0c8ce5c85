#include "cli.h"

#include "plot.h"
#include "web/page.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace kelo {

namespace {

struct RecordOptions {
    std::string file;
    std::string length;
};

struct PlotOptions {
    std::string file;
    std::string output;
    double from = 0;
    double to = -1;
};

constexpr char recordHelp[] = "A VCD, or lines of events --json; else the running board";

struct ReportOptions {
    std::string file;
    std::string output;
};

/// Adds what happened on a board from a time on until now, and first what held then, as if it had
/// begun then. Where the record was dropped up to a later time, that becomes `from`. With `goesOn`
/// what happens further is added for as long as that says so. Throws as RecordReader does.
void readEvents(const std::string &board, Clock::time_point &from, std::vector<Event> &events,
                const std::function<bool()> &goesOn = nullptr)
{
    from = std::max(from, toTime(stateOf(board)["since"]));
    RecordReader record(board, from);
    const auto patience = std::chrono::milliseconds(goesOn ? 50 : 0);
    for (bool more = true; more;) {
        auto event = record.next(Clock::now() + patience);
        more = !record.isUpToDate() || (goesOn ? goesOn() : event.has_value());
        // An attribute that was stored before, or a daemon that ended, is no news.
        const bool isNews = event && event->time >= from;
        if (!event ||
            (!isNews && (event->kind == EventKind::Store || event->kind == EventKind::Exit)))
            continue;
        event->time = std::max(event->time, from);
        events.push_back(std::move(*event));
    }
}

/// What a file tells, or what happened on a running board from its start until now.
Record recordOf(const std::string &board, const std::string &path = "")
{
    if (path.empty()) {
        Record record{board};
        record.start = record.begin = toTime(stateOf(board)["start"]);
        readEvents(board, record.begin, record.events);
        record.end = Clock::now();
        sayRecordBegins(record.start, record.begin);
        return record;
    }
    std::ifstream file(path);
    if (!file)
        throw Failure("cannot read " + path + ": " + strerror(errno));
    try {
        Record record = readRecord(file);
        record.title = std::filesystem::path(path).stem();
        return record;
    } catch (const std::runtime_error &error) {
        throw Failure(path + ": " + error.what());
    }
}

volatile sig_atomic_t interrupted;

void record(const std::string &board, const RecordOptions &options)
{
    openBoard(board); // a file is made for a running board only
    const Clock::duration length =
        options.length.empty() ? Clock::duration::zero() : toDuration(options.length);
    // The file before the wait: it would be a pity to find out after an hour.
    std::ofstream file;
    if (options.file != "-") {
        file.open(options.file, std::ios::trunc);
        if (!file)
            throw Failure("cannot write " + options.file + ": " + strerror(errno));
    }
    std::ostream &out = options.file == "-" ? std::cout : file;
    std::exception_ptr failure;
    if (options.length.empty()) {
        const Record record = recordOf(board);
        out << toVcd(makeRecording(record.events, record.end));
    } else {
        // Cut off, the recording has what there was.
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            signal(number, [](int) { interrupted = 1; });
        std::vector<Event> events;
        Clock::time_point from = Clock::now();
        const Clock::time_point end = from + length;
        try {
            readEvents(board, from, events, [&] { return !interrupted && Clock::now() < end; });
        } catch (const BoardEnded &) {
        } catch (...) {
            failure = std::current_exception();
        }
        out << toVcd(makeRecording(events, Clock::now()));
    }
    if (!out.flush())
        throw Failure("cannot write " + options.file + ": " + strerror(errno));
    if (failure)
        std::rethrow_exception(failure);
}

void drawPlot(const std::string &board, const PlotOptions &options)
{
    if (!options.output.ends_with(".svg") && !options.output.ends_with(".png"))
        throw UsageError("a picture's name ends in .svg or .png, not so \"" + options.output +
                         "\"");
    if (!(options.from >= 0) || (options.to >= 0 && options.to <= options.from))
        throw UsageError("a picture goes from 0 or later to later than that");
    const Record record = recordOf(board, options.file);
    const Recording recording =
        makeRecording(record.events, record.end,
                      options.file.empty() ? std::nullopt : std::optional(record.begin));
    const auto ticks = [&](double seconds) {
        const double tick = seconds * static_cast<double>(RecordingTick::period::den);
        return tick < static_cast<double>(recording.length) ? static_cast<int64_t>(tick)
                                                            : recording.length;
    };
    const int64_t from = ticks(options.from);
    if (from > 0 && from >= recording.length)
        throw Failure("the recording ends before that");
    savePicture(plot(recording, from, options.to < 0 ? recording.length : ticks(options.to)),
                options.output);
}

void report(const std::string &board, const ReportOptions &options)
{
    const std::string page = makePage(recordOf(board, options.file));
    if (options.output == "-")
        std::cout << page << std::flush;
    else
        writeFile(options.output, page);
}

} // namespace

void addRecord(Cli &cli)
{
    const auto options = std::make_shared<RecordOptions>();
    CLI::App *const command = cli.add(lookGroup, "record", "Save what happened on a board as VCD",
                                      [&cli, options] { record(cli.board, *options); });
    command
        ->add_option("FILE", options->file,
                     "File to write, such as board.vcd; - for standard output")
        ->required();
    command
        ->add_option("--for", options->length,
                     "Record from now on for so long, not what was so far")
        ->type_name("TIME");
}

void addPlot(Cli &cli)
{
    const auto options = std::make_shared<PlotOptions>();
    CLI::App *const command =
        cli.add(lookGroup, "plot", "Draw a recording, or what happened on the board so far",
                [&cli, options] { drawPlot(cli.board, *options); });
    command->add_option("FILE", options->file, recordHelp);
    command->add_option("-o,--output", options->output, "Picture to write: .svg or .png")
        ->required();
    command->add_option("--from", options->from, "Second at which the picture starts");
    command->add_option("--to", options->to, "Second at which it ends");
}

void addReport(Cli &cli)
{
    const auto options = std::make_shared<ReportOptions>();
    CLI::App *const command =
        cli.add(lookGroup, "report", "Save what happened as a web page that plays it back",
                [&cli, options] { report(cli.board, *options); });
    command->add_option("FILE", options->file, recordHelp);
    command
        ->add_option("-o,--output", options->output,
                     "Page to write, such as run.html; - for standard output")
        ->required();
}

} // namespace kelo
