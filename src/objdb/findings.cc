#include "objdb/findings.h"

#include <cstdio>
#include <iterator>

#include "objdb/field_text.h"
#include "objdb/progress.h"

namespace {

// In the order of Finding. Of the severities, "loss" says that records cannot be read or will be
// dropped, "refusal" that sweeps will not run, and "fault" that readers are misled.
constexpr struct Row {
  const char *name;
  const char *severity;
  const char *text;
  const char *cure;
} rows[] = {
    {"unfinished-version", "refusal", "a run did not finish, and its previous tables are kept",
     "'objdb restore' brings them back; sweeps refuse until then"},
    {"unopened", "loss", "cannot be opened",
     "objdb(8) has a cure for each reason; if it is damage, restore an archived version, or take "
     "what 'objdb salvage' can still read"},
    {"damaged-structure", "loss", "the directory of the file is wrong, and hides records",
     "'objdb salvage' looks for hidden records; or restore an archived version"},
    {"needs-recovery", "loss", "the dbm library asks for a recovery of the table",
     "'objdb salvage' recovers it in a new version"},
    {"unreached", "loss", "a scan reads other records than the library counts",
     "'objdb salvage' looks for the missing ones; or restore an archived version"},
    {"undecodable", "loss", "the record cannot be decoded",
     "'objdb salvage' leaves it out; or restore an archived version"},
    {"cut-string", "loss", "a text has a NUL inside, and every reader stops there",
     "'objdb salvage' keeps the part before it"},
    {"trailing-bytes", "loss", "there are bytes after the end of the record, which nobody reads",
     "'objdb salvage' leaves them out, as a sweep does"},
    {"wrong-key", "fault", "the key is not the one of this record",
     "'objdb salvage' puts it under the right key, unless another record is there"},
    {"no-counter", "fault", "the id keeper has no counter, so that ids would be given out twice",
     "'objdb salvage' sets the counter above every id"},
    {"id-beyond-counter", "fault",
     "the id is not below the id keeper's counter, and would be given out again",
     "'objdb salvage' raises the counter"},
    {"unknown-type", "loss", "the field is defined with a type that does not exist",
     "'objdb salvage' leaves out the definition and its values"},
    {"same-field-name", "fault", "another field has the same name",
     "'objdb salvage' adds the field's id to its name"},
    {"unknown-field", "loss", "the field has no definition",
     "'objdb salvage' leaves it out, as a sweep does"},
    {"wrong-type", "fault", "the record has another type than its field",
     "'objdb salvage' leaves it out"},
    {"unknown-constant", "fault", "the enumeration has no constant with this number",
     "'objdb salvage' adds constants with names of its own"},
    {"wrong-table", "fault",
     "a name is in the table of the values, or a value in the table of the names",
     "'objdb salvage' moves it, as a sweep does"},
    {"duplicate-name", "fault", "another object has the same name",
     "rename one of the two; 'objdb salvage' adds the object's id to its name"},
    {"unindexed-name", "fault", "name_info does not lead from this name to the object",
     "'objdb salvage' makes name_info again, as a sweep does"},
    {"stray-index", "fault", "name_info leads to an object that does not have the name",
     "'objdb salvage' makes name_info again, as a sweep does"},
};
static_assert(std::size(rows) == findingCount);

}  // namespace

void Findings::add(Finding finding, std::optional<size_t> table, const Json &members,
                   const std::string &detail) {
  const Row &row = rows[static_cast<size_t>(finding)];
  ++counts_[static_cast<size_t>(finding)];
  Json line{{"finding", row.name}, {"severity", row.severity}};
  if (table) line["table"] = tableFormats[*table].name;
  line.update(members);
  line["text"] = row.text + (detail.empty() ? "" : " (" + detail + ")");
  const ProgressPause pause;  // or the finding would stand in the line of progress
  if (json_) {
    line["cure"] = row.cure;
    puts(line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    return;
  }
  std::string where = table ? tableFormats[*table].name : "";
  for (const auto &[name, value] : members.items()) {
    where += (where.empty() ? "" : ", ") + name + " ";
    where += value.is_string() ? plainText(value.get<std::string>().c_str()) : value.dump();
  }
  printf("%s: %s: %s\n", row.name, where.c_str(), line["text"].get<std::string>().c_str());
}

void Findings::finish(uint64_t records) const {
  if (json_) {
    puts(Json{{"records", records}, {"findings", total()}}.dump().c_str());
    return;
  }
  for (size_t i = 0; i < findingCount; ++i) {
    if (counts_[i] != 0) printf("cure of %s: %s\n", rows[i].name, rows[i].cure);
  }
  printf("%llu records looked at, %llu findings\n", static_cast<unsigned long long>(records),
         static_cast<unsigned long long>(total()));
}

uint64_t Findings::total() const {
  uint64_t sum = 0;
  for (const uint64_t count : counts_) sum += count;
  return sum;
}
