#pragma once

#include "DStreamObject.h"

#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

class DZmqContext;
class DZmqPartSource;

/// The receiving end of a detector's live stream: a ZeroMQ PULL socket connected to
/// "tcp://<host>:<port>" with a receive time-out of 100 ms. Not copyable.
///
/// recv() reads one logical message (a header, an image or a series end, each a ZeroMQ
/// multi-part message) and gives a DStreamObject. An image's data part is copied once, from
/// ZeroMQ's message into the buffer that becomes the image, in the form in which it came:
/// plain, an LZ4 chunk (behind the 16-byte framing) or a bitshuffle chunk (one byte short,
/// as the detector's protocol has it; the container's decoder takes that length). A data
/// part shorter than its buffer leaves the rest zero. Memory follows what a message
/// carries: the buffer that a header asks for may be at most twice the data part plus
/// 4096 bytes.
///
/// Failures:
/// - DTimeoutException(0.1) when a part does not come within the time-out;
/// - DTerminateException (no message) when the context ended;
/// - DRuntimeException "Receiving message returned error code: <errno>" for any other
///   failure of the socket;
/// - DRuntimeException `Error parsing ORVIK stream: "DZmqSocket":<line>` for a malformed
///   message, the line telling which test failed. Where a test reads a value that the
///   message has in an unusable form, the value counts as missing or of the wrong kind:
///   members of a JSON part that is no object are missing, a "shape" whose elements are
///   not unsigned numbers is no array (182), an "htype" of a flatfield, mask or table
///   header that is no text is a wrong one, and the low 32 bits of a "size" that is no
///   number are 0 (of a real, its integer part's). "series" and "frame" are numbers when JSON can
///   convert them to an unsigned 32-bit value or they are unsigned 64-bit integers.
///   Elements of an integer array of a configuration outside 32 bits keep their low 32
///   bits. Two tests of the data part have lines of their own: 531, a header that asks
///   for a buffer of more than twice the data part plus 4096 bytes (a negative "size", a
///   shape far beyond the pixels that came); 532, a compressed chunk whose own header
///   announces another plain size than the shape needs, or more than LZ4 can expand its
///   bytes to (255-fold);
/// - DImageCorruptedException (see DCompression.h) for a flatfield, pixel mask or
///   count-rate table of a header that does not decode.
/// Every received part is released on every way out. After a malformed message the next
/// recv() starts with whatever part comes next.
class DZmqSocket {
public:
    class DZmqSocketPrivate;

    /// Connects; DRuntimeException "ERROR: Binding socket" if the address is refused.
    DZmqSocket(DZmqContext& context, const std::string& host, int port);
    /// close().
    ~DZmqSocket();
    DZmqSocket(const DZmqSocket&) = delete;
    DZmqSocket& operator=(const DZmqSocket&) = delete;

    /// Prints "Closing ZMQ socket" on the standard output and closes the socket if it is
    /// open; may be called twice.
    void close();
    /// One logical message from the socket.
    DStreamObject recv();
    /// The same parse over any source of parts.
    static DStreamObject recv(DZmqPartSource& source);

private:
    std::unique_ptr<DZmqSocketPrivate> _d;
};

} // namespace imglib
} // namespace norvexa
