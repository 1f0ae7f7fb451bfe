#include "objdb/salvaged_tables.h"

bool TableTally::isIncomplete() const {
  return !counted || unread() != 0 || undecodable != 0 || damaged;
}

bool TableTally::hasLoss() const {
  return isIncomplete() ||
         (unknownField | unknownType | wrongType | displaced | shortened | renamed) != 0;
}

void SalvagedTables::lose(size_t table, const char *what, const DecodedRecord &record) {
  tables_[table].losses.push_back(
      {what, record.hasObject ? std::optional(record.objectId) : std::nullopt, record.fieldId, ""});
}

void SalvagedTables::loseByKey(size_t table, const char *what, const std::string &key) {
  Loss loss{what, {}, {}, key};
  uint32_t words[2] = {};
  const size_t length = key.copy(reinterpret_cast<char *>(words), sizeof words);
  // A key of name_info begins with the field; the object stands in the record alone.
  const bool hasObject = table == objInfo || table == valueInfo;
  if (hasObject && length == sizeof words) {
    loss.object = words[0];
    loss.field = words[1];
  } else if (!hasObject && table != idKeeper && length >= sizeof words[0]) {
    loss.field = words[0];
  }
  tables_[table].losses.push_back(loss);
}
