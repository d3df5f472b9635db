#pragma once

#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

/// MD5 message digest (RFC 1321) of a byte block, taken at once or piecemeal, handed out
/// as raw bytes, hexadecimal text or Base64.
///
/// Copying copies the whole running state: a copy taken half-way through a message goes on
/// independently of the original. There is no separate move; a move copies, so a
/// moved-from object stays fully usable.
class DMd5 {
public:
    /// Starts as reset() does.
    DMd5();
    DMd5(const DMd5& other);
    DMd5& operator=(const DMd5& other);
    ~DMd5();

    /// Zeroes the length and sets the chaining words to their initial values; the block
    /// buffer and the digest stay as they are.
    void reset();
    /// Adds bytes to the message; any length, 2 GiB and more included.
    void append(const unsigned char* data, unsigned long length);
    /// Appends the padding and the length and stores the digest. Doesn't reset: call
    /// reset() before starting another message.
    void finish();
    /// reset(), append(data, length) and finish() in one call.
    void hash(const unsigned char* data, unsigned long length);

    /// The 16 digest bytes; valid for the object's lifetime, meaningful after finish() or hash().
    const unsigned char* digest() const;
    /// 32 lower-case hexadecimal characters, high nibble first.
    std::string toHex() const;
    /// 24 characters of standard Base64, ending in "==", without line breaks.
    std::string toBase64() const;

private:
    struct DMd5Private;
    std::unique_ptr<DMd5Private> _d;
};

} // namespace imglib
} // namespace norvexa
