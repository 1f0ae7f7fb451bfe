#include "objdb/table_reader.h"

#include <fcntl.h>
#include <gdbm.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/descriptor.h"
#include "platform/files.h"
#include "platform/out_of_memory.h"
#include "platform/table_lock.h"
#include "platform/table_refusal.h"

namespace {

// Called after each call that has failed. The library names missing memory like any other reason,
// and a sound table would look damaged.
void failIfOutOfMemory() {
  if (gdbm_errno == GDBM_MALLOC_ERROR) failForWantOfMemory();
}

class Datum {
 public:
  ~Datum() { free(held_.dptr); }
  Datum() = default;
  Datum(const Datum &) = delete;
  Datum &operator=(const Datum &) = delete;

  void reset(datum fresh) {
    free(held_.dptr);
    held_ = fresh;
  }
  const datum &get() const { return held_; }
  std::string_view view() const {
    if (held_.dptr == nullptr) return {};
    return {held_.dptr, static_cast<size_t>(held_.dsize)};
  }

 private:
  datum held_{};
};

}  // namespace

struct TableReader::State {
  explicit State(GDBM_FILE opened) : file(opened) {}
  ~State() { gdbm_close(file); }
  State(const State &) = delete;
  State &operator=(const State &) = delete;

  GDBM_FILE file;
  uint64_t mostRecords = 0;
  bool started = false;
  bool ended = false;
  Datum key;
  Datum bytes;
  Datum fetched;
  TableStructure structure;
};

std::unique_ptr<TableReader> TableReader::open(const std::string &directory, size_t table,
                                               Demand demand, OpenFailure *failure) {
  return openNamed(directory, tableFormats[table].name, demand, failure);
}

std::unique_ptr<TableReader> TableReader::openNamed(const std::string &directory,
                                                    const std::string &name, Demand demand,
                                                    OpenFailure *failure) {
  const std::string path = pathIn(directory, name);
  const auto fail = [failure](const std::string &file, const std::string &why,
                              OpenFailure::Kind kind) {
    *failure = {"could not open table \"" + file + "\": " + why, kind};
    return nullptr;
  };
  const auto failByErrno = [&fail](const std::string &file) {
    if (errno == EINVAL) return fail(file, "not a file", OpenFailure::damaged);
    // A right or a resource that we lack says nothing against the table.
    const bool isDamage = errno != EACCES && errno != EMFILE && errno != ENOMEM;
    return fail(file, strerror(errno), isDamage ? OpenFailure::damaged : OpenFailure::unavailable);
  };
  if (access(directory.c_str(), F_OK) != 0) {
    *failure = {"no such version: \"" + directory + "\": " + strerror(errno),
                OpenFailure::unavailable};
    return nullptr;
  }
  if (demand != Demand::pageFile) {
    const Descriptor file(openRegular(path + directorySuffix, O_RDONLY));
    if (!file.isOpen()) return failByErrno(path + directorySuffix);
    const std::string why = whyNotDirectoryFile(file.get());
    if (!why.empty()) return fail(path + directorySuffix, why, OpenFailure::damaged);
  }
  const std::string pages = path + pageSuffix;
  Descriptor fd(openRegular(pages, O_RDONLY));
  struct stat status {};
  if (!fd.isOpen() || fstat(fd.get(), &status) != 0) return failByErrno(pages);
  if (demand == Demand::lockedTable && flock(fd.get(), LOCK_SH | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return fail(pages, strerror(errno), OpenFailure::unavailable);
    return fail(pages, "held by " + lockHolder(status), OpenFailure::inUse);
  }
  // Before the library opens the file: it believes what it reads.
  TableStructure structure = readStructure(fd.get());
  constexpr int flags = GDBM_READER | GDBM_NOLOCK;
  GDBM_FILE file = gdbm_fd_open(fd.get(), pages.c_str(), 0, flags, nullptr);
  if (file == nullptr) {
    failIfOutOfMemory();
    return fail(pages, whyNotPageFile(fd.get()), OpenFailure::damaged);
  }
  fd.release();
  auto state = std::make_unique<State>(file);
  constexpr uint64_t bytesPerRecord = 24;  // at least: its place in a bucket
  state->mostRecords = static_cast<uint64_t>(status.st_size) / bytesPerRecord;
  state->structure = std::move(structure);
  return std::unique_ptr<TableReader>(new TableReader(std::move(state), name));
}

TableReader::TableReader(std::unique_ptr<State> state, const std::string &name)
    : state_(std::move(state)), name_(name) {}

TableReader::~TableReader() = default;

bool TableReader::next(DbmRecord *record) {
  State &state = *state_;
  if (state.ended) return false;
  if (!state.started) phase_.emplace("reading " + name_, count().value_or(0));
  gdbm_errno = GDBM_NO_ERROR;
  state.key.reset(state.started ? gdbm_nextkey(state.file, state.key.get())
                                : gdbm_firstkey(state.file));
  state.started = true;
  if (state.key.get().dptr != nullptr && read_ < state.mostRecords) {
    ++read_;
    phase_->count();
    state.bytes.reset(gdbm_fetch(state.file, state.key.get()));
    if (state.bytes.get().dptr == nullptr) failIfOutOfMemory();
    *record = {state.key.view(), state.bytes.view()};
    return true;
  }
  failIfOutOfMemory();
  state.ended = true;
  phase_.reset();
  failed_ = state.key.get().dptr != nullptr || gdbm_errno != GDBM_ITEM_NOT_FOUND;
  return false;
}

std::optional<uint64_t> TableReader::count() const {
  return structure().isSound() ? std::optional(structure().records) : std::nullopt;
}

std::string_view TableReader::fetch(std::string_view key) {
  state_->fetched.reset(
      gdbm_fetch(state_->file, {const_cast<char *>(key.data()), static_cast<int>(key.size())}));
  if (state_->fetched.get().dptr == nullptr) failIfOutOfMemory();
  return state_->fetched.view();
}

const TableStructure &TableReader::structure() const {
  return state_->structure;
}

int TableReader::fd() const {
  return gdbm_fdesc(state_->file);
}

bool TableReader::needsRecovery() const {
  return gdbm_needs_recovery(state_->file) != 0;
}

TableReaders openTables(const std::string &directory, TableReader::Demand demand,
                        OpenFailures *failures) {
  TableReaders tables;
  for (size_t table = 0; table < tableCount; ++table) {
    tables[table] = TableReader::open(directory, table, demand, &(*failures)[table]);
  }
  return tables;
}

namespace {

// The platform's own archives have none, nor need they one.
bool hasNoIdKeeper(const std::string &directory) {
  return access(tablePath(directory, idKeeper, pageSuffix).c_str(), F_OK) != 0 &&
         access(tablePath(directory, idKeeper, directorySuffix).c_str(), F_OK) != 0 &&
         access(tablePath(directory, fieldInfo, pageSuffix).c_str(), F_OK) == 0;
}

}  // namespace

TableReaders openAllTables(const std::string &directory) {
  OpenFailures failures;
  TableReaders tables = openTables(directory, TableReader::Demand::lockedTable, &failures);
  std::vector<const OpenFailure *> different;
  for (size_t table = 0; table < tableCount; ++table) {
    const OpenFailure &failure = failures[table];
    if (tables[table] != nullptr) continue;
    if (table == idKeeper && hasNoIdKeeper(directory)) continue;
    if (failure.kind == OpenFailure::inUse) throw failure.asFailure();
    if (different.empty() || different.back()->reason != failure.reason) {
      different.push_back(&failure);
    }
  }
  if (different.empty()) return tables;
  for (const OpenFailure *failure : different) {
    if (failure != different.back()) fprintf(stderr, "objdb: %s\n", failure->reason.c_str());
  }
  throw different.back()->asFailure();
}

bool sayUndecodable(size_t table, std::string_view key) {
  const ProgressPause pause;
  fprintf(stderr, "objdb: could not decode the record with key %s in table \"%s\"\n",
          toHex(key).c_str(), tableFormats[table].name);
  return false;
}

bool sayIncomplete(size_t table) {
  fprintf(stderr, "objdb: could not read table \"%s\" to its end\n", tableFormats[table].name);
  return false;
}
