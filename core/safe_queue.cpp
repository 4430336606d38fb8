#include "core/safe_queue.h"

#include <cstring>

#include "core/json_writer.h"

void safe_queue::enqueue_json(json_writer& message)
{
    auto buffer = std::make_shared<buffer_info_t>();
    const char* text = message.serialize();
    if (text != nullptr)
        buffer->append(text, static_cast<unsigned>(strlen(text)));
    enqueue(buffer);
}
