#include "cli.h"

#include "plot.h"
#include "recording.h"

#include <cerrno>
#include <csignal>
#include <cstring>
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

/// What happened on a running board from its start until now.
Recording recordingOf(const std::string &board)
{
    const Past past(board);
    sayRecordBegins(past.start, past.from);
    return makeRecording(past.events, Clock::now());
}

Recording savedRecording(const std::string &path)
{
    const Record record = readSaved(path, readVcd);
    return makeRecording(record.events, record.end, record.begin);
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
        out << toVcd(recordingOf(board));
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
    const Recording recording =
        options.file.empty() ? recordingOf(board) : savedRecording(options.file);
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
    command->add_option("FILE", options->file, "Recording to draw; without it the running board");
    command->add_option("-o,--output", options->output, "Picture to write: .svg or .png")
        ->required();
    command->add_option("--from", options->from, "Second at which the picture starts");
    command->add_option("--to", options->to, "Second at which it ends");
}

} // namespace kelo
