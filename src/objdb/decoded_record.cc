#include "objdb/decoded_record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>

#include "platform/out_of_memory.h"
#include "records/codecs.h"
#include "records/field_codec.h"
#include "records/record_views.h"

DecodedRecord::DecodedRecord(size_t table, std::string_view bytes) : table_(table) {
  errno = 0;
  const uint32_t cutBefore = cutStrings;
  if (table == valueInfo && readPlain(bytes)) {
    decoded_ = &plain_;
  } else if (bytes.data() != nullptr) {
    decoded_ = tableFormats[table].decode(bytes.data(), bytes.size());
  }
  isCut = cutStrings != cutBefore;
  if (decoded_ == nullptr) {
    // A sound record that there is no memory for.
    if (errno == ENOMEM) failForWantOfMemory();
    return;
  }
  switch (table) {
    case idKeeper:
      counter = *static_cast<const uint32_t *>(decoded_);
      break;
    case fieldInfo: {
      const NQwFieldInfo *info = static_cast<const dbFieldInfo *>(decoded_)->fieldInfo;
      fieldId = info->fieldId;
      type = info->type;
      flags = info->flags;
      break;
    }
    case objInfo:
    case nameInfo: {
      const auto *record = static_cast<const dbObject *>(decoded_);
      hasObject = true;
      objectId = record->objectId;
      fieldId = record->fieldId;
      type = String;
      name = record->name;
      break;
    }
    case valueInfo: {
      const auto *record = static_cast<const dbObjectValue *>(decoded_);
      hasObject = true;
      objectId = record->objectId;
      fieldId = record->fieldId;
      type = record->value->type;
      name = singleString(record->value);
      break;
    }
    default:
      fieldId = static_cast<const dbEnumConstants *>(decoded_)->fieldId;
      type = Enumeration;
  }
}

DecodedRecord::~DecodedRecord() {
  if (decoded_ == nullptr || decoded_ == &plain_) return;
  switch (table_) {
    case fieldInfo:
      freeDbFieldInfo(static_cast<dbFieldInfo *>(decoded_));
      break;
    case valueInfo:
      freeDbObjectValue(static_cast<dbObjectValue *>(decoded_));
      break;
    case enumInfo:
      freeEnumConstants(static_cast<dbEnumConstants *>(decoded_)->constants);
      free(decoded_);
      break;
    default:
      break;  // static storage of the decoder
  }
}

bool DecodedRecord::readPlain(std::string_view bytes) {
  RecordView view;
  if (!viewDbObjectValue(bytes, &view)) return false;
  plainValue_ = view.value;
  if (view.hasText) {
    text_[view.text.copy(text_, view.text.size())] = '\0';
    plainValue_.value.string = text_;
  }
  plain_ = {view.objectId, view.fieldId, &plainValue_};
  return true;
}

std::string_view DecodedRecord::properKey() {
  size_t length = 0;
  const auto append = [&](const void *bytes, size_t count) {
    memcpy(key_ + length, bytes, count);
    length += count;
  };
  if (table_ == objInfo || table_ == valueInfo) append(&objectId, sizeof objectId);
  append(&fieldId, sizeof fieldId);  // of the id keeper 0, which is its key
  if (table_ == nameInfo) append(name, strlen(name));
  return {key_, length};
}

size_t DecodedRecord::encodedBytes() const {
  // The sums of table_records.h and field_codec.h for most records, which then need not be encoded.
  const auto textBytes = [](const char *text) {
    return text == nullptr ? size_t{4} : 4 + (strlen(text) + 3) / 4 * 4;
  };
  if (table_ == objInfo || table_ == nameInfo) return 16 + textBytes(name);
  if (table_ == valueInfo) {
    const NQwFieldValue &value = *static_cast<const dbObjectValue *>(decoded_)->value;
    if (value.isList == 0) return 28 + (value.type == String ? textBytes(value.value.string) : 4);
  }
  return encoding().size();
}

std::string_view DecodedRecord::encoding() const {
  const char *bytes = nullptr;
  size_t length = 0;
  if (tableFormats[table_].encode(decoded_, &bytes, &length) < 0) return {};
  return {bytes, length};
}

std::vector<int32_t> numbersOf(const NQwFieldValue &value) {
  if (value.isList == 0) return {value.value.number};
  std::vector<int32_t> numbers;
  const ValueListEntry *entries = value.value.list->entries;
  for (const ValueListEntry &entry : std::span(entries, value.value.list->count)) {
    numbers.push_back(entry.value.number);
  }
  return numbers;
}
