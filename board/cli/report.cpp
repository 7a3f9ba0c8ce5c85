#include "cli.h"

#include "web/page.h"

#include <filesystem>
#include <iostream>

namespace kelo {

namespace {

struct Options {
    std::string file;
    std::string output;
};

Record recordOf(const std::string &board)
{
    const Past past(board);
    sayRecordBegins(past.start, past.from);
    return {board, past.events, past.start, past.from, Clock::now()};
}

Record savedRecord(const std::string &path)
{
    Record record = readSaved(path, readRecord);
    record.title = std::filesystem::path(path).stem();
    return record;
}

void report(const std::string &board, const Options &options)
{
    const Record record = options.file.empty() ? recordOf(board) : savedRecord(options.file);
    if (options.output == "-")
        std::cout << makePage(record) << std::flush;
    else
        writeFile(options.output, makePage(record));
}

} // namespace

void addReport(Cli &cli)
{
    const auto options = std::make_shared<Options>();
    CLI::App *const command =
        cli.add(lookGroup, "report", "Save what happened as a web page that plays it back",
                [&cli, options] { report(cli.board, *options); });
    command->add_option("FILE", options->file,
                        "A VCD, or lines of events --json; else the running board");
    command
        ->add_option("-o,--output", options->output,
                     "Page to write, such as run.html; - for standard output")
        ->required();
}

} // namespace kelo
