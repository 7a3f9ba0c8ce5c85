#include "cli.h"

#include "web/page.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace kelo {

namespace {

struct Options {
    std::string file;
    std::string output;
};

Record recordOf(const std::string &board)
{
    Record record{board, {}, toTime(stateOf(board)["start"]), {}, {}};
    record.begin = record.start;
    readEvents(board, record.begin, record.events);
    record.end = Clock::now();
    if (record.begin > record.start)
        sayRecordBegins(record.begin - record.start);
    return record;
}

Record savedRecord(const std::string &path)
{
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

int report(const std::string &board, const Options &options)
{
    const Record record = options.file.empty() ? recordOf(board) : savedRecord(options.file);
    if (options.output == "-")
        std::cout << makePage(record) << std::flush;
    else
        savePage(record, options.output);
    return 0;
}

} // namespace

void addReport(Cli &cli)
{
    const auto options = std::make_shared<Options>();
    CLI::App *const command =
        cli.add(lookGroup, "report", "Save what happened as a web page that plays it back",
                [&cli, options] { return report(cli.board, *options); });
    command->add_option("FILE", options->file,
                        "A VCD, or lines of events --json; else the running board");
    command
        ->add_option("-o,--output", options->output,
                     "Page to write, such as run.html; - for standard output")
        ->required();
}

} // namespace kelo
