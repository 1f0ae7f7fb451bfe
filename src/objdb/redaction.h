// Taking the names and texts out of a dump, so that it can be given away.
#pragma once

#include <map>
#include <set>
#include <string>

#include "objdb/record_lines.h"

class Redaction {
 public:
  // The record with a token in the place of each name and text, of the same length in bytes; equal
  // texts have equal tokens, and different ones different tokens, also between records. Throws
  // CommandFailure for a record that is odd in a way that only its bytes tell, and has texts.
  StoredRecord redact(size_t table, std::string_view key, std::string_view bytes);

 private:
  std::string tokenOf(const std::string &text);
  void redactText(Json *text);

  std::map<std::string, std::string> tokens_;
  std::set<std::string> used_;
  std::map<size_t, uint64_t> next_;  // number of the next token of a length
};
