// Archive import and export side by side with the command-line tools users compare them with,
// on the same inputs, in one run. Every measurement runs in a child process of its own, so that
// its wall time and its peak memory are the process's, for ours and for the tool alike.
//
//   zoproject_archive_bench [--files N] [--runs R] [--dir D]
//
// prints the median of R runs (default 5) for trees of N files (default 10000) of 4 KiB, 100 per
// directory, built under D (default: the system's temporary directory).
#include <zo/project/archive.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using zo::project::ArchiveFormat;

struct Sample {
    double milliseconds;
    long peakKiB;
};

// Runs body in a child process; its exit status must be 0.
Sample measure(const std::function<int()>& body)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(body());
    int status = 0;
    rusage usage {};
    ::wait4(child, &status, 0, &usage);
    const std::chrono::duration<double, std::milli> elapsed
        = std::chrono::steady_clock::now() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "archive_bench: a measured run failed\n");
        std::exit(1);
    }
    return { elapsed.count(), usage.ru_maxrss };
}

int runTool(const std::vector<std::string>& command)
{
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    return 127;
}

int runOurs(const std::function<void()>& body)
{
    try {
        body();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "archive_bench: %s\n", error.what());
        return 1;
    }
}

// Removes what a run left, however deep: std::filesystem stops at the longest path.
void removeTree(const std::string& path)
{
    measure([&] { return runTool({ "rm", "-rf", path }); });
}

struct Workload {
    std::string name;
    std::function<void()> ours;
    std::string anchorName;
    std::function<int()> anchor; // empty when no tool is compared
    std::string output; // removed after every run
    double goal;
};

Sample median(std::vector<Sample> samples)
{
    const auto middle = samples.begin() + static_cast<long>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end(),
        [](const Sample& a, const Sample& b) { return a.milliseconds < b.milliseconds; });
    return *middle;
}

void run(const Workload& workload, int runs)
{
    std::vector<Sample> ours;
    std::vector<Sample> anchor;
    for (int i = 0; i < runs; ++i) {
        // Alternating, so that a change in the machine's load meets both alike.
        ours.push_back(measure([&] { return runOurs(workload.ours); }));
        removeTree(workload.output);
        if (workload.anchor) {
            anchor.push_back(measure(workload.anchor));
            removeTree(workload.output);
        }
    }
    const Sample our = median(ours);
    std::printf("%-34s %10.1f %8ld", workload.name.c_str(), our.milliseconds, our.peakKiB);
    if (anchor.empty()) {
        std::printf("   %-16s\n", "-");
        return;
    }
    const Sample their = median(anchor);
    const double ratio = our.milliseconds / their.milliseconds;
    std::printf("   %-16s %10.1f %8ld %7.2fx %6.2fx %s\n", workload.anchorName.c_str(),
        their.milliseconds, their.peakKiB, ratio, workload.goal,
        ratio <= workload.goal ? "met" : "MISSED");
}

// Files of 4 KiB, 100 per directory: numbered lines, as compressible as source text.
void makeTree(const std::string& root, int files)
{
    for (int i = 0; i < files; ++i) {
        const fs::path directory = fs::path(root) / ("dir" + std::to_string(i / 100));
        fs::create_directories(directory);
        std::string content;
        for (int line = 0; content.size() < 4096; ++line)
            content += "file " + std::to_string(i) + " line " + std::to_string(line) + "\n";
        content.resize(4096);
        std::ofstream(directory / ("file" + std::to_string(i) + ".txt")) << content;
    }
}

// A tar.gz of directories nested depth deep, written by a program that knows no path limit.
void makeDeepArchive(const std::string& path, int depth)
{
    const std::string script = "import tarfile\n"
                               "with tarfile.open('"
        + path
        + "', 'w:gz', format=tarfile.PAX_FORMAT) as t:\n"
          "    for i in range(1, "
        + std::to_string(depth + 1)
        + "):\n"
          "        info = tarfile.TarInfo('/'.join(['d'] * i)); info.type = tarfile.DIRTYPE\n"
          "        info.mode = 0o755; t.addfile(info)\n";
    measure([&] { return runTool({ "python3", "-c", script }); });
}

} // namespace

int main(int argc, char** argv)
{
    int files = 10000;
    int runs = 5;
    std::string base = fs::temp_directory_path();
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--files")
            files = std::atoi(argv[i + 1]);
        else if (option == "--runs")
            runs = std::atoi(argv[i + 1]);
        else if (option == "--dir")
            base = argv[i + 1];
    }
    std::string work = base + "/zo-archive-bench-XXXXXX";
    if (::mkdtemp(work.data()) == nullptr) {
        std::perror("archive_bench: mkdtemp");
        return 1;
    }
    const std::string tree = work + "/tree";
    const std::string out = work + "/out";
    const std::string tarGz = work + "/tree.tar.gz";
    const std::string deep = work + "/deep.tar.gz";
    const std::string zip = work + "/tree.zip";
    makeTree(tree, files);
    zo::project::exportProject(tree, tarGz, ArchiveFormat::TarGz);
    makeDeepArchive(deep, 5000);

    const std::string count = std::to_string(files);
    const std::vector<Workload> workloads = {
        { "import " + count + "-file tar.gz",
            [&] { zo::project::importProject(tarGz, out, ArchiveFormat::Auto); }, "bsdtar -xf",
            [&] {
                fs::create_directory(out);
                return runTool({ "bsdtar", "-xf", tarGz, "-C", out });
            },
            out, 1.1 },
        { "export " + count + " files to zip",
            [&] { zo::project::exportProject(tree, zip, ArchiveFormat::Zip); }, "zip -qr",
            [&] {
                fs::current_path(tree);
                return runTool({ "zip", "-qr", zip, "." });
            },
            zip, 1.2 },
        { "import 5000-deep tar.gz",
            [&] { zo::project::importProject(deep, out, ArchiveFormat::Auto); }, "", {}, out, 0 },
    };
    std::printf("%d runs each, medians; wall time in ms, peak RSS in KiB; work in %s\n\n", runs,
        work.c_str());
    std::printf("%-34s %10s %8s   %-16s %10s %8s %8s %7s\n", "workload", "ours", "RSS", "anchor",
        "anchor", "RSS", "ratio", "goal");
    for (const Workload& workload : workloads)
        run(workload, runs);
    removeTree(work);
    return 0;
}
