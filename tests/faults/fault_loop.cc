#include "faults/fault_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <regex>
#include <thread>
#include <unordered_map>

#include "faults/fault_count.h"

namespace fs = std::filesystem;

namespace {

using testing::EndsWith;

const fs::path databases = "/usr/NQ/databases";
const fs::path database = databases / "nqwdb";

#ifdef DBSWEEP_SANITIZED
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

// A command that takes longer hangs. Many times what the slowest takes.
constexpr unsigned patience = 60;

pid_t watched;
bool hung;

void giveUp(int) {
  hung = true;
  kill(watched, SIGKILL);
}

// Has a process that takes too long killed.
void watch(pid_t process) {
  watched = process;
  struct sigaction action {};
  action.sa_handler = giveUp;
  sigaction(SIGALRM, &action, nullptr);
  alarm(patience);
}

// Where a program counts: a file that every program of the same depth uses again.
FaultCount *countOf(const std::string &file) {
  static std::map<std::string, FaultCount *> counts;
  FaultCount *&count = counts[file];
  if (count == nullptr) {
    const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0644);
    if (ftruncate(fd, sizeof(FaultCount)) != 0) abort();
    count = static_cast<FaultCount *>(
        mmap(nullptr, sizeof(FaultCount), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
  }
  return count;
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> result;
  for (const std::string &text : texts) result.push_back(const_cast<char *>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> environmentFor(const std::string &program, const Fault &fault,
                                        const std::string &count) {
  std::vector<std::string> result;
  for (char **entry = environ; *entry != nullptr; ++entry) result.emplace_back(*entry);
  const bool allocations = fault.points == Points::allocations;
  const std::string preload = allocations ? ALLOCATION_FAULT_PRELOAD : FAULT_PRELOAD;
  for (const std::string &entry :
       {"LD_PRELOAD=" + preload, "FAULT_IN=" + fs::path(program).filename().string(),
        "FAULT_HOW=" + fault.how, "FAULT_COUNT=" + count, "FAULT_DISK=" + databases.string(),
        std::string("FAULT_ALONE=1"), std::string("ASAN_OPTIONS=verify_asan_link_order=0")}) {
    result.push_back(entry);
  }
  if (fault.points == Points::calls) result.emplace_back("FAULT_LOOKS=1");
  if (fault.on) result.emplace_back("FAULT_ON=1");
  if (!fault.mapped) result.emplace_back("FAULT_NOMAP=1");
  return result;
}

// A command that was started once and runs as often as it is told to; see fault_count.h.
class Program {
 public:
  // With a point the start itself counts, too: some allocations come before it is ready.
  Program(const Command &command, const Fault &fault, long at = 0)
      : command_(command),
        fault_(fault),
        startedFor_(at),
        base_("/usr/NQ/tmp/run" + std::to_string(depth++)),
        count_(countOf(base_ + "count")) {
    *count_ = {};
    count_->at = at;
    writeFile(base_ + "in", command.input);
    int orders[2], reports[2];
    if (pipe2(orders, O_CLOEXEC) != 0 || pipe2(reports, O_CLOEXEC) != 0) abort();
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, (base_ + "in").c_str(), O_RDONLY, 0);
    constexpr int anew = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    posix_spawn_file_actions_addopen(&files, 1, (base_ + "out").c_str(), anew, 0644);
    posix_spawn_file_actions_addopen(&files, 2, (base_ + "err").c_str(), anew, 0644);
    posix_spawn_file_actions_adddup2(&files, orders[0], ordersPipe);
    posix_spawn_file_actions_adddup2(&files, reports[1], reportsPipe);
    const auto environment = environmentFor(command.line[0], fault, base_ + "count");
    const int failed = posix_spawnp(&original_, command.line[0].c_str(), &files, nullptr,
                                    pointers(command.line).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&files);
    if (failed != 0) abort();
    close(orders[0]);
    close(reports[1]);
    orders_ = orders[1];
    reports_ = reports[0];
    watch(original_);
    isReady_ = nextReport().has_value();
    if (isReady_) alarm(0);
    startCalls_ = count_->calls;
  }
  ~Program() {
    close(orders_);
    close(reports_);
    if (isReady_) waitpid(original_, nullptr, 0);
    alarm(0);
    --depth;
  }
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  // `meanwhile` runs each time that the command stops. Killed after that time, if one is given.
  Outcome run(long at, const std::function<void()> &meanwhile = {},
              std::optional<std::chrono::nanoseconds> killAfter = {}) {
    if (at != startedFor_ && at != 0 && at <= startCalls_) {
      Program other(command_, fault_, at);
      const Outcome outcome = other.run(at, meanwhile);
      *count_ = *other.count_;
      return outcome;
    }
    if (at == 0 || at != startedFor_) *count_ = {at, startCalls_, ""};
    for (const char *output : {"out", "err"}) {
      if (truncate((base_ + output).c_str(), 0) != 0) abort();
    }
    order();
    const int status = end(meanwhile, killAfter);
    EXPECT_FALSE(hung) << "does not end";
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
            readFile(base_ + "out"), readFile(base_ + "err")};
  }
  const FaultCount &count() const { return *count_; }

 private:
  void order() const {
    if (isReady_ && write(orders_, "", 1) != 1) abort();
  }

  // Nothing when the program has ended.
  std::optional<FaultReport> nextReport() const {
    FaultReport report{};
    ssize_t size = 0;
    do {
      size = read(reports_, &report, sizeof report);
    } while (size < 0 && errno == EINTR);
    return size == sizeof report ? std::optional(report) : std::nullopt;
  }

  // Its status as of waitpid.
  int end(const std::function<void()> &meanwhile,
          std::optional<std::chrono::nanoseconds> killAfter) {
    pid_t copy = original_;
    while (const auto report = nextReport()) {
      switch (report->what) {
        case FaultReport::ready:
          break;
        case FaultReport::started:
          copy = report->value;
          watch(copy);
          if (!killAfter) break;
          std::this_thread::sleep_for(*killAfter);
          kill(copy, SIGKILL);
          break;
        case FaultReport::stopped:
          if (meanwhile) meanwhile();
          watch(copy);
          order();
          break;
        case FaultReport::ended:
          alarm(0);
          return report->value;
      }
    }
    int status = 0;
    waitpid(original_, &status, 0);
    isReady_ = false;
    return status;
  }

  inline static int depth = 0;  // a program may run while another one is stopped

  const Command &command_;
  const Fault &fault_;
  long startedFor_;
  std::string base_;
  FaultCount *count_;
  pid_t original_ = 0;
  int orders_ = -1, reports_ = -1;
  bool isReady_ = false;  // for orders; not when the start itself has failed
  long startCalls_ = 0;   // counted before it was ready
};

bool isVersionName(const std::string &name) {
  static const std::regex pattern("[0-9]{8}\\.[0-9]{6}");
  return name == "current" || std::regex_match(name, pattern);
}

std::vector<fs::path> sortedEntries(const fs::path &directory) {
  std::vector<fs::path> entries;
  std::error_code ignored;
  for (const auto &entry : fs::recursive_directory_iterator(directory, ignored)) {
    entries.push_back(entry.path());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

// The bytes of all files below a directory, and their names; those of archived versions without the
// time. Two trees with the same text are the same to every command.
std::string textOf(const fs::path &directory) {
  static const std::regex version("[0-9]{8}\\.[0-9]{6}");
  std::string text;
  for (const fs::path &path : sortedEntries(directory)) {
    text += std::regex_replace(path.lexically_relative(directory).string(), version, "VERSION");
    if (fs::is_regular_file(fs::symlink_status(path))) text += "=" + readFile(path);
    text += '\n';
  }
  return text;
}

// Every command is run once for each content: most faults leave the tables as they were.
VersionLines linesOf(const std::string &name) {
  static std::unordered_map<std::string, VersionLines> known;
  const fs::path directory = database / name;
  const auto [found, isNew] = known.try_emplace(textOf(directory));
  if (isNew) {
    const Outcome dumped = runAlone({"objdb", "dump", "--version", name});
    found->second.unfinished = exists(directory / "unfinished");
    if (dumped.status == 0) {
      found->second.whole = true;
      found->second.lines = dumpLines(dumped.out);
    }
  }
  return found->second;
}

bool hasTables(const fs::path &directory) {
  return std::ranges::any_of(fs::directory_iterator(directory),
                             [](const auto &entry) { return entry.path().extension() == ".pag"; });
}

const VersionLines *find(const Versions &versions, const std::string &name) {
  const auto found = versions.find(name);
  return found == versions.end() ? nullptr : &found->second;
}

bool sameIn(const Versions &a, const Versions &b, const std::string &name) {
  const VersionLines *first = find(a, name), *second = find(b, name);
  return first == nullptr || second == nullptr ? first == second : *first == *second;
}

// The same versions, whatever their names.
bool sameContents(const Versions &a, const Versions &b) {
  std::vector<VersionLines> first, second;
  for (const auto &[name, lines] : a) first.push_back(lines);
  for (const auto &[name, lines] : b) second.push_back(lines);
  std::sort(first.begin(), first.end());
  std::sort(second.begin(), second.end());
  return sameIn(a, b, "current") && first == second;
}

std::string markedIn(const Versions &versions) {
  for (const auto &[name, version] : versions) {
    if (version.unfinished && name != "current") return name;
  }
  return "";
}

// The version that the next run will name, or that this one has named.
std::string keptIn(const Versions &versions, const std::string &message) {
  const std::string marked = markedIn(versions);
  if (!marked.empty()) return marked;
  for (const auto &[name, version] : versions) {
    if (message.find("kept in " + (database / name).string()) != std::string::npos) return name;
  }
  return "";
}

bool holdLines(const Versions &versions, const Lines &lines) {
  return std::ranges::any_of(versions, [&](const auto &entry) {
    return entry.second.whole && entry.second.lines == lines;
  });
}

bool hasLeftovers() {
  std::error_code ignored;  // a load may have made no database yet
  return std::ranges::any_of(fs::directory_iterator(database, ignored), [](const auto &entry) {
    return entry.path().filename().string().starts_with(".");
  });
}

// What the operator does next: a run, and the restore that it asks for.
void expectAWayOn(const Round &round) {
  static std::unordered_map<std::string, bool> known;
  if (!known.try_emplace(textOf(database)).second) return;
  const std::vector<std::string> count = {"dbsweep", "-d", "99"};
  const std::string marked = markedIn(round.now);
  if (!marked.empty()) {
    const Outcome refused = runAlone(count, "yes\n");
    ASSERT_THAT(refused.err,
                EndsWith("dbsweep: An earlier run did not finish. Its tables are kept in " +
                         (database / marked).string() + "; restore them with 'objdb restore " +
                         marked + "' first.\n"));
    const Outcome restored = runAlone({"objdb", "restore", marked});
    ASSERT_EQ(restored.status, 0) << restored.err;
    const Versions versions = versionsNow();
    ASSERT_EQ(find(versions, "current")->lines, find(round.now, marked)->lines);
    ASSERT_EQ(markedIn(versions), "");
  }
  const Versions versions = versionsNow();
  const VersionLines *current = find(versions, "current");
  if (current == nullptr || !current->whole) return;
  const Outcome next = runAlone(count, "yes\n");
  ASSERT_EQ(next.status, 0) << "the next run: " << next.err;
  ASSERT_EQ(linesOf("current"), *current);
  if (!hasLeftovers()) return;
  const bool salvages = round.command.salvages;
  ASSERT_EQ(salvages ? runAlone({"objdb", "salvage", "current"}).status
                     : runAlone({"objdb", "archive"}).status,
            0);
  ASSERT_FALSE(hasLeftovers()) << "what the dead process has left stays";
}

std::string standsFor(const std::string &argument, const Versions &versions) {
  if (argument != "VERSION") return argument;
  for (const auto &[name, lines] : versions) {
    if (name != "current") return name;
  }
  return argument;
}

// The command with the name of the version that is there.
Command aimed(Command command, const Versions &versions) {
  for (std::string &argument : command.line) argument = standsFor(argument, versions);
  return command;
}

long numberOf(const char *variable, long otherwise) {
  const char *text = getenv(variable);
  return text == nullptr || atol(text) <= 0 ? otherwise : atol(text);
}

}  // namespace

Snapshot Snapshot::take() {
  Snapshot snapshot;
  for (const fs::path &path : sortedEntries(databases)) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) continue;
    const bool isDirectory = S_ISDIR(status.st_mode);
    snapshot.files_.push_back({path, status, isDirectory, isDirectory ? "" : readFile(path)});
  }
  return snapshot;
}

void Snapshot::putBack() const {
  if (fs::exists(databases)) {
    for (const auto &entry : fs::directory_iterator(databases)) fs::remove_all(entry);
  }
  for (const File &file : files_) {
    if (file.isDirectory) {
      mkdir(file.path.c_str(), 0700);
    } else {
      const int fd = open(file.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const ssize_t written = write(fd, file.content.data(), file.content.size());
      close(fd);
      ASSERT_EQ(written, static_cast<ssize_t>(file.content.size())) << file.path;
    }
    ASSERT_EQ(chown(file.path.c_str(), file.status.st_uid, file.status.st_gid), 0);
    chmod(file.path.c_str(), file.status.st_mode & 07777);
  }
  fs::remove("/usr/NQ/conf/dbsweep.lock");
  for (const auto &entry : fs::directory_iterator("/usr/NQ/log")) fs::remove(entry);
}

Versions versionsNow() {
  Versions versions;
  std::error_code ignored;
  for (const auto &entry : fs::directory_iterator(database, ignored)) {
    const std::string name = entry.path().filename();
    if (isVersionName(name) && hasTables(entry)) versions[name] = linesOf(name);
  }
  return versions;
}

const std::vector<Fault> &faults() {
  static const std::vector<Fault> all = [] {
    std::vector<Fault> result = {
        {"noSpace", std::to_string(ENOSPC), Points::changes, false, false},
        {"error", std::to_string(EIO), Points::calls},
        {"errorsFromThenOn", std::to_string(EIO), Points::calls, true},
    };
    const std::vector<Fault> others = {
        // What ends without its exit handlers has nothing that the sanitizers would find.
        {"kill", "kill"},
        {"killUnmapped", "kill", Points::changes, false, false},
        {"powerCut", "forget"},
        {"powerCutEntries", "forget-entries"},
        {"powerCutContents", "forget-contents"},
        {"powerCutCreations", "forget-creations"},
        // They have an allocator of their own.
        {"noMemory", std::to_string(ENOMEM), Points::allocations},
        {"noMemoryFromThenOn", std::to_string(ENOMEM), Points::allocations, true},
    };
    if (!sanitized) result.insert(result.end(), others.begin(), others.end());
    return result;
  }();
  return all;
}

std::string caseName(const testing::TestParamInfo<std::tuple<Command, Fault>> &test) {
  return std::get<0>(test.param).label + "_" + std::get<1>(test.param).label;
}

Outcome runWithFault(const Command &command, const Fault &fault, long at, long *points,
                     const std::function<void()> &meanwhile) {
  Program program(command, fault, at);
  const Outcome outcome = program.run(at, meanwhile);
  if (points != nullptr) *points = program.count().calls;
  return outcome;
}

Outcome runAlone(const std::vector<std::string> &line, const std::string &input) {
  return runWithFault({"", line, input}, {"none", "none"}, 0);
}

Outcome runAndKill(const Command &command, std::chrono::nanoseconds after) {
  const Fault none{"none", "none"};
  return Program(command, none).run(0, {}, after);
}

std::vector<long> pointsToTry(long points) {
  if (const long only = numberOf("DBSWEEP_POINT", 0); only != 0) return {only};
  const long wanted = std::min(numberOf("DBSWEEP_POINTS", points), points);
  const long seed = numberOf("DBSWEEP_SEED", 0);
  const double distance = static_cast<double>(points) / static_cast<double>(wanted);
  const double first = static_cast<double>(seed % std::max(1L, static_cast<long>(distance)));
  std::vector<long> result;
  for (long i = 0; i < wanted; ++i) {
    result.push_back(
        std::min(points, 1 + static_cast<long>(first + static_cast<double>(i) * distance)));
  }
  return result;
}

void faultEverywhere(const Command &wanted, const Fault &fault) {
  wanted.prepare();
  if (testing::Test::HasFatalFailure()) return;
  const Snapshot start = Snapshot::take();
  start.putBack();
  const Versions before = versionsNow();
  const Command command = aimed(wanted, before);
  Program program(command, fault);
  const Outcome clean = program.run(0);
  const long points = program.count().calls;
  ASSERT_EQ(clean.status, 0) << clean.err;
  ASSERT_GT(points, 10) << "not the calls of such a run";
  const Versions after = versionsNow();
  // Beyond the last point the power fails after the end.
  const std::vector<long> tried = pointsToTry(points + (fault.how.starts_with("forget") ? 1 : 0));
  for (const long at : tried) {
    start.putBack();
    Round round{command, fault, at, "", {}, clean, before, after, {}};
    round.outcome = program.run(at);
    round.call = program.count().name;
    SCOPED_TRACE(command.label + ": " + fault.label + " at point " + std::to_string(at) + " of " +
                 std::to_string(points) + ", " + (round.reached() ? round.call : "not reached") +
                 " (DBSWEEP_POINT=" + std::to_string(at) + " tries it alone)\nstatus " +
                 std::to_string(round.outcome.status) + ": " + round.outcome.err);
    round.now = versionsNow();
    round.trace = readFile("/usr/NQ/log/objectsdb.trace");
    round.leftovers = hasLeftovers();
    nothingIsLost(round);
    if (!testing::Test::HasFailure()) command.judge(round);
    if (testing::Test::HasFailure()) return;
  }
  printf("%s, %s: %zu of %ld points\n", command.label.c_str(), fault.label.c_str(), tried.size(),
         points);
}

void letInEverywhere(const Command &first, const Command &second, const JudgeTwo &judge) {
  first.prepare();
  if (testing::Test::HasFatalFailure()) return;
  const Snapshot start = Snapshot::take();
  start.putBack();
  const Versions before = versionsNow();
  const Command command = aimed(first, before), other = aimed(second, before);
  const Fault stop{"stop", "stop", Points::calls};
  Program program(command, stop), otherProgram(other, stop);
  const Outcome clean = program.run(0);
  const long points = program.count().calls;
  ASSERT_EQ(clean.status, 0) << clean.err;
  ASSERT_GT(points, 10) << "not the calls of such a run";
  const Versions after = versionsNow();
  const std::vector<long> tried = pointsToTry(points);
  for (const long at : tried) {
    start.putBack();
    Outcome otherOutcome{-1, "", ""};
    Round round{command, stop, at, "", {}, clean, before, after, {}};
    round.outcome = program.run(at, [&] { otherOutcome = otherProgram.run(0); });
    round.call = program.count().name;
    SCOPED_TRACE(other.label + " in " + command.label + " at point " + std::to_string(at) + " of " +
                 std::to_string(points) + ", " + round.call +
                 "\nfirst: " + std::to_string(round.outcome.status) + ": " + round.outcome.err +
                 "\nsecond: " + std::to_string(otherOutcome.status) + ": " + otherOutcome.err);
    round.now = versionsNow();
    if (!round.reached()) continue;  // the number of calls differs a little from run to run
    judge(round, otherOutcome, before);
    if (testing::Test::HasFailure()) return;
  }
  printf("%s in %s: %zu of %ld points\n", other.label.c_str(), command.label.c_str(), tried.size(),
         points);
}

void nothingIsLost(const Round &round) {
  const auto &[command, fault, at, call, outcome, clean, before, after, now, trace, leftovers] =
      round;
  if (round.reached() && fault.ends()) {
    ASSERT_EQ(outcome.status, 128 + SIGKILL);
  } else {
    ASSERT_TRUE(outcome.status < 4 || outcome.status == 255);
    ASSERT_EQ(outcome.err.find("/proc/"), std::string::npos) << "a path for this process alone";
    ASSERT_EQ(outcome.err.find(": \n"), std::string::npos) << "a failure without its reason";
    if (outcome.status != 0) {
      ASSERT_NE(outcome.err, clean.err) << "a failure that says nothing";
    } else if (outcome.err == clean.err && outcome.out.empty() == clean.out.empty()) {
      // Where all fails from then on, the removal of a version that is not needed any more cannot
      // be undone, nor be told of as done.
      ASSERT_FALSE(fault.fails() && !fault.on && call.ends_with("sync"))
          << "nothing was said of it";
      ASSERT_TRUE(sameContents(now, after)) << "nothing was reported, and not all was done";
    }
  }
  if (!sameIn(now, before, "current") && !sameIn(now, after, "current")) {
    const std::string kept = keptIn(now, outcome.err);
    ASSERT_NE(kept, "") << "no whole database anywhere";
    ASSERT_TRUE(now.at(kept).whole);
    ASSERT_TRUE(holdLines(before, now.at(kept).lines));
  }
  for (const auto &[name, version] : before) {
    if (name == "current") continue;
    ASSERT_TRUE(sameIn(now, before, name) || sameIn(now, after, name)) << name;
  }
  for (const auto &[name, version] : now) {
    if (name == "current" || before.contains(name)) continue;
    ASSERT_TRUE(version.whole) << name << " is no whole version";
    const bool saysLess = command.salvages && outcome.status != 0;
    ASSERT_TRUE(saysLess || holdLines(before, version.lines) || holdLines(after, version.lines))
        << name;
  }
  expectAWayOn(round);
}
