// Table operations against the raw compiler floor, measured in one run.
//
//   tables_bench SIZE DIR        timings for a table of SIZE records in DIR
//   tables_bench --rss SIZE DIR  peak RSS (KiB) of one filterRecords pass
//
// Each figure is the median of several repetitions; the floor is the same
// compiler invocation started directly with fork/exec, so the ratio is the
// library's own overhead.
#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/DatabaseHelper.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

using namespace zarnet::mail::postfix;

namespace {

const char *const postmap = "/usr/sbin/postmap";

double now_ms()
{
    return std::chrono::duration<double, std::milli>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// fork/exec of the compiler with optional stdin text and stdout to a file.
void raw(const std::vector<std::string> &args, const std::string &input,
         const char *out = "/dev/null")
{
    int in[2];
    if (pipe(in) != 0)
        std::abort();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        const int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        close(in[0]);
        close(in[1]);
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(postmap));
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(postmap, argv.data());
        _exit(127);
    }
    close(in[0]);
    if (!input.empty() && write(in[1], input.data(), input.size()) < 0)
        std::abort();
    close(in[1]);
    int status;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || (WEXITSTATUS(status) != 0 && args[0] != "-d"))
        std::abort();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double timed(int reps, const std::function<void()> &fn)
{
    std::vector<double> t;
    for (int i = 0; i < reps; ++i) {
        const double start = now_ms();
        fn();
        t.push_back(now_ms() - start);
    }
    return median(t);
}

void build(const std::string &table, const std::string &source, long size)
{
    std::ofstream out(source);
    for (long i = 0; i < size; ++i)
        out << "user" << i << "@bench.test user" << i << "@bench.test, copy" << i
            << "@other.test\n";
    out.close();
    raw({table}, "");
    std::remove(source.c_str());
}

void print(const char *what, long size, double ms, double floor)
{
    std::printf("%-22s %7ld records  %9.2f ms  floor %9.2f ms  ratio %.2f\n", what, size, ms,
                floor, ms / floor);
}

} // namespace

int main(int argc, char **argv)
{
    const bool rss = argc == 4 && std::string(argv[1]) == "--rss";
    if (argc != 3 && !rss) {
        std::fprintf(stderr, "usage: tables_bench [--rss] SIZE DIR\n");
        return 2;
    }
    const long size = std::atol(argv[rss ? 2 : 1]);
    const std::string dir = argv[rss ? 3 : 2];
    const std::string source = dir + "/virtual";
    const std::string table = "hash:" + source;
    build(table, source, size);

    const std::string from = "bench.test", to = "renamed.test";
    const database::ElementsFilter<database::ReplaceDomainPart> renameFilter(
        database::ReplaceDomainPart(from, to, false));

    if (rss) {
        DatabaseHelper::filterRecords(table, renameFilter);
        struct rusage ru;
        getrusage(RUSAGE_SELF, &ru);
        std::printf("%ld\n", ru.ru_maxrss);
        return 0;
    }

    const int reps = 15;
    const double addFloor = timed(reps, [&] { raw({"-r", "-i", table}, "new@bench.test x@y.test\n"); });
    const double add = timed(reps, [&] { DatabaseHelper::addRecord(table, "new@bench.test", "x@y.test"); });
    print("addRecords(1)", size, add, addFloor);

    const double removeFloor = timed(reps, [&] {
        raw({"-r", "-i", table}, "gone@bench.test x@y.test\n");
        raw({"-d", "gone@bench.test", table}, "");
    }) - addFloor;
    const double remove = timed(reps, [&] {
        raw({"-r", "-i", table}, "gone@bench.test x@y.test\n");
        DatabaseHelper::removeRecord(table, "gone@bench.test");
    }) - addFloor;
    print("removeRecord", size, remove, removeFloor);

    // The first pass renames; later passes run the same filter over the
    // renamed table, so floor and library handle identical content and are
    // interleaved so that drift of the machine hits both alike.
    DatabaseHelper::filterRecords(table, renameFilter);
    const int filterReps = size > 100000 ? 5 : reps;
    const std::string dump = dir + "/dump";
    std::vector<double> floorRuns, filterRuns;
    for (int i = 0; i < filterReps; ++i) {
        floorRuns.push_back(timed(1, [&] {
            raw({"-s", table}, "", dump.c_str());
            std::rename(dump.c_str(), source.c_str());
            raw({table}, "");
            std::remove(source.c_str());
        }));
        filterRuns.push_back(timed(1, [&] { DatabaseHelper::filterRecords(table, renameFilter); }));
    }
    const double filterFloor = median(floorRuns), filter = median(filterRuns);
    print("filterRecords", size, filter, filterFloor);
    return 0;
}
