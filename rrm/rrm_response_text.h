// The text of "rrm-response". Its "rf-environment" can hold five lists of up to 2 × 4680
// neighbours (~5 MB of text), far too much to build as a json-c tree, so only the small head
// (envelope, "domain", "radios") is built with json_writer and the environment is streamed
// after it, entry by entry, into the block that is queued.
#ifndef ORVD_RRM_RRM_RESPONSE_TEXT_H
#define ORVD_RRM_RRM_RESPONSE_TEXT_H

#include <cstddef>
#include <memory>

#include "core/buffer_info.h"
#include "core/json_writer.h"
#include "driver/driver_interface.h"

// The message `head` (a root object writer, which must not hold "rf-environment") followed by
// "rf-environment": one inner list per non-empty table of `tables[0..count)`, in table order.
// The text is byte for byte what json-c serializes for the same tree. Null when the head
// failed or memory ran out: a report without its environment would tell the service that
// nothing is around.
std::shared_ptr<buffer_info_t> rrm_response_text(json_writer& head, const ap_table* tables, size_t count,
                                                 const driver_interface& driver);

#endif
