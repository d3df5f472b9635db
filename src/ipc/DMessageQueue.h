#pragma once

#include "DArray.h"
#include "DDrawingList.h"
#include "DMessageQueueException.h"
#include "DPixel.h"

#include <atomic>
#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

class DImage;
class DMessageQueuePrivate;

/// A two-way channel between two processes on one machine, under a name that both give
/// to open(). Each direction carries a stream of short texts (at most 4096 bytes, up to
/// 100 waiting) and a single slot for one big object: a DImage with its metadata, a
/// DArray<DPixel> or a DDrawingList. Objects cross as the shared-memory forms of their
/// classes, copied once into a segment and once out of it, without serialisation.
///
/// Roles: the first process to open a name becomes the main side and holds the file
/// lock "/tmp/__NORVEXA_FENWIK_FLK_MAIN_<name>" until it closes; it removes what an
/// earlier run left behind and creates the queues and the administration segment. Later
/// openers are sub sides and attach to them. What one side sends only the other side
/// receives. When the main side closes (or dies), the objects go with it; a sub side
/// still open keeps its old mappings, is not told, and its blocking calls wait for
/// ever. The lock files in /tmp are never removed.
///
/// Roles are held by processes (the file locks are per process): use one open queue of
/// a name per process. A queue may be used from several threads; two threads that send
/// objects in one direction are served one after the other.
///
/// The object slot does not say what it holds: both sides agree beforehand on the class
/// of each object. The segment of a direction is sized for its first object, kept from
/// one message to the next, and grown by 4 MiB steps when an object does not fit. After
/// a failure inside the object channel the slot stays as it was left (a failed send
/// leaves it occupied); both sides then have to open the queue anew.
///
/// What is kept between messages, so that a frame costs its two copies and no more:
/// - Each side keeps its mappings of both data segments until close() or open(). A
///   segment mapped anew faults in every page again, which for a frame costs more than
///   the copies. Before each use the mapping is checked against the object now under the
///   segment's name (its inode): a sender that grows the segment removes it and makes a
///   bigger one under the same name, a main side's open() and a failed transfer remove
///   it, and the other side then maps the new one instead of reading the old.
/// - receive(DImage&) copies into the caller's pixel buffer when it already has the
///   shape and pixel type of the arriving frame, so a viewer that receives into one
///   DImage in a loop touches no fresh memory. (If that buffer is shared with a copy of
///   the image, the copy keeps it and the receiver gets a buffer of its own first.)
///   Otherwise, and for the metadata (small nodes, and a mask of the frame's size when
///   there is one), the old contents are let go before the new ones are allocated, so
///   that the heap's cache of large blocks hands the same memory back.
///
/// Each blocking call has a twin with a trailing abort flag (std::atomic<bool>), for a
/// thread that must be able to call the wait off: it waits in slices of at most 100 ms,
/// looks at the flag before the first and after each, and once the flag is set leaves by
/// DTerminateException "Operation aborted", with the queue and its slot as they were (an
/// aborted send leaves nothing behind; an aborted receive leaves the message for the next
/// receive). Only the wait is abortable: an object that has started to cross is
/// finished.
///
/// Every failure is a DMessageQueueException: "DMessageQueue <name> is not open." for a
/// queue that is not open (the name is empty after close()), "Maximum message length
/// exceeded (4096 characters)", or the text of the failed inter-process primitive.
class DMessageQueue {
public:
    /// Not open.
    DMessageQueue();
    /// Opens the queue `name`.
    explicit DMessageQueue(const char* name);
    /// Closes; a failure there ends the process.
    ~DMessageQueue();
    DMessageQueue(const DMessageQueue&) = delete;
    DMessageQueue& operator=(const DMessageQueue&) = delete;

    /// Opens the queue `name` (anew, if this object is open already) and takes the role
    /// that is free. Waits while another process opens or closes the same name.
    void open(const char* name);
    /// Leaves the queue; the main side removes all its shared objects. Harmless on a
    /// queue that is not open.
    void close();

    /// Sends the bytes of `text`; blocks while 100 texts wait for the other side.
    void send(const std::string& text);
    /// Copies the object into the shared slot; blocks while the slot still holds the
    /// previous object.
    void send(const DImage& image);
    void send(const DArray<DPixel>& array);
    void send(const DStdDrawingList& list);

    /// The next text from the other side; blocks until there is one.
    std::string receive();
    /// Takes the object out of the slot into the argument; blocks until there is one.
    void receive(DImage& image);
    void receive(DArray<DPixel>& array);
    void receive(DStdDrawingList& list);

    /// The same calls, abortable by `abort` (DTerminateException).
    void send(const std::string& text, const std::atomic<bool>& abort);
    void send(const DImage& image, const std::atomic<bool>& abort);
    void send(const DArray<DPixel>& array, const std::atomic<bool>& abort);
    void send(const DStdDrawingList& list, const std::atomic<bool>& abort);
    std::string receive(const std::atomic<bool>& abort);
    void receive(DImage& image, const std::atomic<bool>& abort);
    void receive(DArray<DPixel>& array, const std::atomic<bool>& abort);
    void receive(DStdDrawingList& list, const std::atomic<bool>& abort);

private:
    std::unique_ptr<DMessageQueuePrivate> _d;
};

} // namespace imglib
} // namespace norvexa
