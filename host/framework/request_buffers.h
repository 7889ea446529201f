// The buffers of an I/O control, as the I/O manager passes them on by the method of its code. Buffered: one system
// buffer that holds the input first and the output later. Direct: a system buffer for the input, and the sender's own
// for the output. Neither: addresses that only the sender knows.
#pragma once

#include "host/framework/lent_buffer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace host::framework {

class Framework;
struct MemoryObject;

// The framework's mutex guards it.
struct RequestBuffers {
    std::unique_ptr<LentBuffer> system;
    std::unique_ptr<LentBuffer> direct;
    MemoryObject* inputMemory = nullptr;   // made when the driver asks for it; a child of the request
    MemoryObject* outputMemory = nullptr;  // the same

    std::vector<std::byte> result;  // what goes back to the sender
};

struct RequestObject;

void LendBuffers(Framework& framework, RequestObject& request, std::span<const std::byte> input,
                 std::span<const std::byte> output);
// The request is completed: what goes back is kept, the buffers are gone.
void ReclaimBuffers(RequestObject& request);

}  // namespace host::framework
