#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/options.h"

namespace {

struct ListedVersion {
  Version version;
  time_t time;
  Survey survey;
};

// The time that names a version, of either data format; 0 for another name. The length tells the
// format: "%Y" takes the two digits of the old one too, for a year of the first century.
time_t timeOf(const std::string &name) {
  const bool isOld = name.size() == strlen("ddmmyy.HHMMSS");
  tm parts{};
  parts.tm_isdst = -1;
  const char *end = strptime(name.c_str(), isOld ? "%d%m%y.%H%M%S" : "%d%m%Y.%H%M%S", &parts);
  return end != nullptr && *end == '\0' ? mktime(&parts) : 0;
}

std::string shownTime(time_t time) {
  if (time == 0) return "-";
  tm parts{};
  localtime_r(&time, &parts);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return text;
}

std::string stateOf(const ListedVersion &each) {
  std::string state = each.version.unfinished ? "unfinished" : "";
  if (each.survey.isWhole) return state.empty() ? "whole" : state;
  return state + (state.empty() ? "" : ", ") + "not whole: " + each.survey.whatIsWrong;
}

void print(const ListedVersion &each, bool digest, bool json) {
  const Survey &survey = each.survey;
  if (json) {
    Json line{{"version", each.version.name},
              {"time", shownTime(each.time)},
              {"bytes", survey.bytes},
              {"records", survey.records},
              {"unfinished", each.version.unfinished},
              {"whole", survey.isWhole}};
    if (!survey.isWhole) line["reason"] = survey.whatIsWrong;
    if (digest) line["digest"] = survey.census.digest();
    puts(line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    return;
  }
  printf("%s %s %llu bytes %llu records %s%s%s\n", each.version.name.c_str(),
         shownTime(each.time).c_str(), static_cast<unsigned long long>(survey.bytes),
         static_cast<unsigned long long>(survey.records),
         digest ? survey.census.digest().c_str() : "", digest ? " " : "", stateOf(each).c_str());
}

ObjdbStatus listByAge(const std::string &directory, bool digest, bool json) {
  requireDatabase(directory);
  std::vector<ListedVersion> list;
  for (const Version &version : listVersions(directory)) {
    list.push_back({version, timeOf(version.name),
                    digest ? surveyVersion(version.directory) : surveyQuickly(version.directory)});
  }
  // Stable: versions of one second, in the names of both data formats, stay in the order of their
  // names.
  std::stable_sort(list.begin(), list.end(),
                   [](const ListedVersion &a, const ListedVersion &b) { return a.time < b.time; });
  ObjdbStatus status = objdbFine;
  for (const ListedVersion &each : list) {
    print(each, digest, json);
    if (each.version.unfinished || !each.survey.isWhole) status = objdbFindings;
  }
  return status;
}

ObjdbStatus runVersions(Options &options) {
  VersionPath database;
  bool digest = false;
  bool json = false;
  options.directory(&database);
  options.flag("--digest", &digest, "Read all records, and write the digest of a dump's trailer");
  options.flag("--json", &json, "List the versions as lines of JSON");
  options.parse();
  return listByAge(database.directory, digest, json);
}

}  // namespace

const Command versionsCommand{"versions",
                              "List the archived versions and those that a run has left unfinished",
                              "objdb versions --digest", runVersions};
