// Fields and their values in the words in which find takes and show gives them. All of these ask
// the definitions and constants in the caches.
//
//   Integer 5   Boolean true   String text   Enumeration down   list [1,2] ["a,b",c]
//
// A text stands for itself unless that could be misread: then it is a string of JSON, or what a
// dump has for a text that is not UTF-8.
#pragma once

#include <cstdint>
#include <string>

#include "objdb/owned_values.h"
#include "objdb/record_lines.h"

// The field with that name, or with that id where none has the name. Null when there is none;
// throws CommandFailure when several have it.
const NQwFieldInfo *findField(const std::string &name);

// "no field NAME", and which there are, with these flag bits at least.
std::string unknownField(const std::string &name, uint32_t flags = 0);

// A value of the field. Throws CommandFailure that says what the field could have instead.
FieldValue parseValue(const NQwFieldInfo &field, const std::string &text);
FieldValue parseList(const NQwFieldInfo &field, const std::string &text);  // with the brackets

std::string fieldText(const NQwFieldInfo &field);  // its name, or its id if it has none
std::string plainText(const char *text);
std::string valueText(const NQwFieldBinding &binding);

// As in a dump's lines; the names of constants besides.
Json valueToJson(const NQwFieldBinding &binding);
