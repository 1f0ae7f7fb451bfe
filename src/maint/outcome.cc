#include "maint/outcome.h"

RunOutcome outcome;

namespace {

class Reasons {
 public:
  void add(const std::string &reason) { all_ += (all_.empty() ? "" : "; ") + reason; }
  void addCount(uint32_t count, const char *what) {
    if (count > 0) add(std::to_string(count) + what);
  }
  const std::string &all() const { return all_; }

 private:
  std::string all_;
};

}  // namespace

// Texts and order are those of the manual: scripts look for them.
std::string reasonsToKeep() {
  Reasons reasons;
  reasons.addCount(outcome.unread, " records could not be read");
  for (const std::string &table : outcome.missing) reasons.add("table " + table + " was missing");
  reasons.addCount(outcome.leftOut, " values were left out");
  reasons.addCount(outcome.unwritten, " values could not be written");
  reasons.addCount(outcome.undeleted, " objects could not be deleted");
  for (const std::string &file : outcome.unremoved) reasons.add(file + " could not be removed");
  if (outcome.unsynced) reasons.add("the new tables could not be synced");
  if (outcome.incomplete) reasons.add("the new tables are not complete");
  return reasons.all();
}
