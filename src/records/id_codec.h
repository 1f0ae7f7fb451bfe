// The versioned 32-bit number of which ids and the id keeper's counter are made, and the version
// word that heads the larger records.
//
//   dbkey      unsigned 1 (encodingVersion) | unsigned number              8 bytes
#pragma once

#include <cstdint>

#include "platform/xdr_driver.h"

// Every codec of this room returns 1 on success and 0 on failure, prints nothing, and is not
// re-entrant.

// Encoding writes 1; decoding accepts nothing else.
bool_t xdr_encodingVersion(XDR *stream);

// Decoding into a null pointer points it at one static number, which the next such decode
// overwrites and which is never freed.
bool_t xdr_dbkey(XDR *stream, uint32_t **number);

// An id inside a record, coded as a dbkey. The two are one routine under two names.
bool_t xdr_objectId(XDR *stream, uint32_t *id);
constexpr auto xdr_fieldId = xdr_objectId;
