#include "DZmqContext.h"

#include <zmq.h>

namespace norvexa {
namespace imglib {

DZmqContext::DZmqContext() : _context(zmq_ctx_new()) {}

DZmqContext::~DZmqContext() { shutdown(); }

void DZmqContext::shutdown()
{
    if (void* context = _context.exchange(nullptr))
        zmq_ctx_destroy(context);
}

} // namespace imglib
} // namespace norvexa
