// What a rewrite stores and in which order.
#pragma once

#include <cstdint>

#include "store/database.h"

// Plans the storing of every value of every cached object: the names, newest object first and in
// the order of its list; then all others, in the cheapest order. Done while the old files are still
// there, since it takes memory. The plan points at the cached values. Returns how many of them are
// left out, because a later value of the object has the same key.
uint32_t planRewrite();

// Stores all that is planned, under bulk access, and ends it for each table as soon as that is
// complete. Returns how many values could not be stored.
uint32_t storePlanned(ObjectDatabase *db);
