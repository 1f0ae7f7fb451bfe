// The 64-bit FNV-1a hash, part by part.
#pragma once

#include <cstdint>

constexpr uint64_t fnv64Start = 14695981039346656037u;

constexpr uint64_t fnv64Step(uint64_t hash, uint32_t part) {
  return (hash ^ part) * 1099511628211u;
}
