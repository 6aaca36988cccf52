// tessalo: a command-line host of the Tessalo library.
// Exit status: 0 done, 1 file refused or job failed, 2 usage error.
#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <iostream>
#include <streambuf>

#include "Causes.h"
#include "Commands.h"
#include "Times.h"
#include "tessalo.h"

using namespace tslcli;

namespace {

// Writes straight to a file descriptor, for the program's own output.
class FdBuf : public std::streambuf {
public:
    explicit FdBuf(int fd) : fd(fd) {}

protected:
    int_type overflow(int_type c) override {
        if (c == traits_type::eof()) return traits_type::not_eof(c);
        const char ch = static_cast<char>(c);
        return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(const char* data, std::streamsize n) override {
        std::streamsize done = 0;
        while (done < n) {
            const ssize_t w = ::write(fd, data + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) break;
            done += w;
        }
        return done;
    }

private:
    int fd;
};

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr const char* kDescription =
    "tessalo: index MP4 files (H.264 + AAC), take pictures by timestamp, cut time ranges.\n"
    "Times are milliseconds (1500) or hh:mm:ss.mmm (00:00:01.500, also mm:ss.mmm).\n"
    "Exit status: 0 done, 1 file refused or job failed, 2 usage error.";

int64_t timeArg(const std::string& text) { return parseTime(text); }

std::vector<TimeSpan> spans(const std::vector<std::string>& texts, const char* what) {
    std::vector<TimeSpan> out;
    for (const std::string& t : texts) out.push_back(parseSpan(t, what));
    return out;
}

// What the command line fills in, for every subcommand.
struct Arguments {
    double timeoutSeconds = 20;
    Settings settings;
    std::string file, keyText, output;
    ThumbOptions thumbs;
    std::string framesDir = "frames";
    std::vector<std::string> rangeTexts, offsetTexts;
    std::string demoDir = "tessalo-demo";
};

// A subcommand as parsed, and the job it runs once the line is read.
struct Subcommand {
    CLI::App* parsed;
    std::function<int(std::ostream&)> run;
};

// The subcommands that read a file's index and pictures.
std::vector<Subcommand> addReadingCommands(CLI::App& app, Arguments& a) {
    Settings& settings = a.settings;
    auto* info = app.add_subcommand("info", "Media information and an index summary");
    info->add_option("FILE", a.file, "Media file")->required();
    info->add_flag("--json", settings.json, "Print JSON");

    auto* keys = app.add_subcommand("keys", "Every key timestamp with the size of its group");
    keys->add_option("FILE", a.file, "Media file")->required();
    keys->add_flag("--json", settings.json, "Print JSON");

    auto* group = app.add_subcommand("group", "Every timestamp of the group at one key timestamp");
    group->add_option("FILE", a.file, "Media file")->required();
    group->add_option("KEY_MS", a.keyText, "Key timestamp of the group")->required();
    group->add_flag("--json", settings.json, "Print JSON");

    auto* thumbsCmd = app.add_subcommand("thumbs", "Every key picture as PNG, and a contact sheet");
    thumbsCmd->add_option("FILE", a.file, "Media file")->required();
    thumbsCmd->add_option("-o,--output", a.thumbs.dir, "Folder for the pictures")->capture_default_str();
    thumbsCmd->add_option("--sheet", a.thumbs.sheet, "Contact sheet path (default: DIR/sheet.png)");
    thumbsCmd->add_option("--columns", a.thumbs.columns, "Pictures across the sheet")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    thumbsCmd->add_option("--thumb-width", a.thumbs.thumbWidth, "Width of a picture on the sheet")
        ->check(CLI::Range(16, 4096))
        ->capture_default_str();

    auto* frames = app.add_subcommand("frames", "Every picture of one group as PNG");
    frames->add_option("FILE", a.file, "Media file")->required();
    frames->add_option("KEY_MS", a.keyText, "Key timestamp of the group")->required();
    frames->add_option("-o,--output", a.framesDir, "Folder for the pictures")->capture_default_str();

    return {{info, [&a](std::ostream& out) { return runInfo(a.settings, a.file, out); }},
            {keys, [&a](std::ostream& out) { return runKeys(a.settings, a.file, out); }},
            {group, [&a](std::ostream& out) { return runGroup(a.settings, a.file, timeArg(a.keyText), out); }},
            {thumbsCmd, [&a](std::ostream& out) { return runThumbs(a.settings, a.file, a.thumbs, out); }},
            {frames, [&a](std::ostream& out) {
                 return runFrames(a.settings, a.file, timeArg(a.keyText), a.framesDir, out);
             }}};
}

// The subcommands that write files; `a` outlives the returned runs.
std::vector<Subcommand> addWritingCommands(CLI::App& app, Arguments& a) {
    Settings& settings = a.settings;

    auto* cut = app.add_subcommand("cut", "Cut time ranges into a new MP4 without re-encoding (--exact: re-encoding only what must be)");
    cut->add_option("FILE", a.file, "Media file")->required();
    cut->add_option("-o,--output", a.output, "Output file (.mp4 or .mov)")->required();
    cut->add_option("-r,--range", a.rangeTexts, "Range START-END to keep, end inclusive; repeat for more")
        ->required()
        ->take_all();
    cut->add_option("--offset", a.offsetTexts, "Pair of source times A-B to translate to the output's timeline");
    cut->add_flag("--json", settings.json, "Print JSON");
    auto* kind = cut->add_option("--kind", settings.cutKind,
                                 "1: audio and video keep the source's own offset, ranges join without overlap "
                                 "(default); 0: the original timeline, with fixed steps at each join; 2: as --exact")
                     ->check(CLI::Range(0, 2))
                     ->capture_default_str();
    cut->add_flag_callback(
           "--exact", [&a] { a.settings.cutKind = kCutKindExact; },
           "Frame-exact: each range shows exactly its pictures; those before its first key frame and after its "
           "last clean point are encoded again, the rest copied")
        ->excludes(kind);

    auto* demo = app.add_subcommand("demo", "Make a sample clip, then run info, thumbs and a cut on it");
    demo->add_option("-o,--output", a.demoDir, "Folder for what the demo makes")->capture_default_str();

    std::vector<Subcommand> commands;
    commands.push_back({cut, [&a](std::ostream& out) {
                            return runCut(a.settings, a.file, a.output, spans(a.rangeTexts, "range"),
                                          spans(a.offsetTexts, "offset"), out);
                        }});
    commands.push_back({demo, [&a](std::ostream& out) { return runDemo(a.settings, a.demoDir, out); }});
    return commands;
}

// The library prints a few diagnostics of its own to standard output
// (complaints about its writer's calling order). They must not mix with what
// this program prints (JSON above all), nor come before or after its one
// sentence about a failure: its output keeps a private copy of the
// descriptor, and descriptor 1 goes nowhere. The copy, or -1.
int takeStandardOutput() {
    const int outFd = ::dup(STDOUT_FILENO);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (outFd < 0 || nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0) return -1;
    ::close(nowhere);
    return outFd;
}

// Runs the subcommand that was given; its exit status.
int runChosen(const std::vector<Subcommand>& commands, std::ostream& out) {
    try {
        for (const Subcommand& command : commands)
            if (*command.parsed) return command.run(out);
    } catch (const UsageError& e) {
        std::cerr << "tessalo: " << e.what() << "\nRun with --help for more information.\n";
        return kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "tessalo: " << e.what() << "\n";
        return kExitFailure;
    }
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{kDescription, "tessalo"};
    app.require_subcommand(1);
    app.fallthrough();
    Arguments args;
    app.add_option("--timeout", args.timeoutSeconds, "Seconds the library may send no event before the program gives up")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    std::vector<Subcommand> commands = addReadingCommands(app, args);
    for (Subcommand& command : addWritingCommands(app, args)) commands.push_back(std::move(command));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : kExitUsage;
    }

    quietFfmpeg();
    // A file size limit makes a write past it fail, as a full disk does,
    // instead of ending the program.
    std::signal(SIGXFSZ, SIG_IGN);
    const int outFd = takeStandardOutput();
    if (outFd < 0) {
        std::cerr << "tessalo: cannot set up standard output\n";
        return kExitFailure;
    }
    FdBuf outBuf(outFd);
    std::ostream out(&outBuf);
    args.settings.idle = std::chrono::milliseconds(static_cast<int64_t>(args.timeoutSeconds * 1000));
    return runChosen(commands, out);
}
