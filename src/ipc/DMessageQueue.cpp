#include "DMessageQueue.h"

#include "DImage.h"
#include "DShmImage.h"
#include "DTerminateException.h"
#include "foundation/DAssert.h"
#include "foundation/image/DAllocators.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/sync/file_lock.hpp>
#include <boost/interprocess/sync/interprocess_condition.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <typeinfo>
#include <utility>

#include <sys/stat.h>

namespace bip = boost::interprocess;

namespace norvexa {
namespace imglib {

namespace {

const std::string kMainLockPrefix = std::string("/tmp") + "/__NORVEXA_FENWIK_FLK_MAIN_";
const std::string kSubLockPrefix = std::string("/tmp") + "/__NORVEXA_FENWIK_FLK_SUB_";
const std::string kQueue1Prefix = "__NORVEXA_FENWIK_MSQ_1_";
const std::string kQueue2Prefix = "__NORVEXA_FENWIK_MSQ_2_";
const std::string kAdminPrefix = "__NORVEXA_FENWIK_MSQ_ADMIN_";
// No underscore before the queue's name here, unlike the names above.
const std::string kData1Prefix = "__NORVEXA_FENWIK_MSQ_DATA_1";
const std::string kData2Prefix = "__NORVEXA_FENWIK_MSQ_DATA_2";
const char* const kCondition1 = "cond1";
const char* const kCondition2 = "cond2";

constexpr std::size_t kMaxMessages = 100;
constexpr std::size_t kMaxMessageSize = 4096;
constexpr std::size_t kAdminSize = 4096;
constexpr std::size_t kSegmentGrowth = 4194304;
constexpr unsigned kPermissions = 0644;
// An abortable call looks at its flag at least this often.
constexpr long kAbortSliceMs = 100;
const char* const kAborted = "Operation aborted";

using image::ShmAllocator;
using image::ShmSegment;

/// The state of one direction's object slot, in the administration segment.
struct MessageCondition {
    /// 1: the slot is empty; 0: it holds an object that the receiver has not taken.
    unsigned char flag = 1;
    bip::interprocess_mutex mutex;
    bip::interprocess_condition condition;
};

/// How each class of object crosses: its form in the segment, the size the segment
/// starts with, and the copy back to the heap.
template <class Data>
struct Crossing;

template <>
struct Crossing<DImage> {
    using Shared = DShmImage;
    // A node of the metadata takes about 1 KiB; each pixel leaves room for a 32-bit mask.
    static std::size_t firstSize(const DImage& image)
    {
        return image.optionalData().neXus().size() * 1024 + image.size() * (image.dataSize() + 4);
    }
    static void back(const Shared& shared, DImage& image)
    {
        const image::DBasicImage<ShmAllocator>& from = shared.imageData();
        const DBasicImage& to = image.constImageData();
        const bool samePixels = from.filter() == image::DCompression::FILTER_NONE &&
                                to.filter() == image::DCompression::FILTER_NONE && from.type() == to.type() &&
                                from.typeBits() == to.typeBits() && from.usedBytes() == to.usedBytes() &&
                                std::equal(from.shape().begin(), from.shape().end(), to.shape().begin(),
                                           to.shape().end());
        if (samePixels) {
            // The caller's buffer is written over: its pages are in use already, where a
            // new block of a frame's size would be faulted in page by page.
            if (from.usedBytes())
                std::memcpy(image.data(), from.cdata(), from.usedBytes());
        } else {
            // The old pixels go first, so that the new block may take their place.
            image.setImageData(DBasicImage());
            image.setImageData(DBasicImage(from, image::StdAllocator()));
        }
        // The metadata is a tree of small nodes (and a mask of the frame's size, when there
        // is one): it is built anew, after the old one has been let go for the same reason.
        image.optionalData().clear();
        image.setOptionalData(DImageOptionalData(shared.optionalData(), image::StdAllocator()));
    }
};

template <>
struct Crossing<DArray<DPixel>> {
    using Shared = DArray<DPixel, ShmAllocator>;
    static std::size_t firstSize(const DArray<DPixel>& array) { return array.size() * sizeof(DPixel) + 4096; }
    static void back(const Shared& shared, DArray<DPixel>& array)
    {
        array = DArray<DPixel>(shared, image::StdAllocator());
    }
};

template <>
struct Crossing<DStdDrawingList> {
    using Shared = DShmDrawingList;
    static std::size_t firstSize(const DStdDrawingList& list) { return list.memsize() + 4096; }
    static void back(const Shared& shared, DStdDrawingList& list)
    {
        list = DStdDrawingList(shared, image::StdAllocator());
    }
};

[[noreturn]] void throwNotOpen(const std::string& name)
{
    throw DMessageQueueException("DMessageQueue " + name + " is not open.");
}

/// The end of the next slice of an abortable wait, on the clock of the timed waits.
boost::posix_time::ptime sliceEnd()
{
    return boost::posix_time::microsec_clock::universal_time() + boost::posix_time::milliseconds(kAbortSliceMs);
}

void throwIfAborted(const std::atomic<bool>* abort)
{
    if (abort && *abort)
        throw DTerminateException(kAborted);
}

/// Waits on `condition` until `ready()`; with an abort flag, in slices, leaving by
/// DTerminateException (with nothing changed) once the flag is set.
template <class Ready>
void waitUntil(MessageCondition& condition, bip::scoped_lock<bip::interprocess_mutex>& lock,
               const std::atomic<bool>* abort, Ready ready)
{
    while (!ready()) {
        if (abort) {
            condition.condition.timed_wait(lock, sliceEnd());
            throwIfAborted(abort);
        } else {
            condition.condition.wait(lock);
        }
    }
}

/// Creates the file if it is missing, as opening an output stream for appending does.
void touch(const std::string& path) { std::ofstream stream(path, std::ios::app); }

/// Releases the open/close lock on every way out of open().
class SubLockGuard {
public:
    explicit SubLockGuard(bip::file_lock& lock) : _lock(lock) {}
    ~SubLockGuard()
    {
        try {
            _lock.unlock();
        } catch (const bip::interprocess_exception&) {
            // The descriptor is closed with the lock object; that frees the lock as well.
        }
    }
    SubLockGuard(const SubLockGuard&) = delete;
    SubLockGuard& operator=(const SubLockGuard&) = delete;

private:
    bip::file_lock& _lock;
};

/// Which shared object a name stands for: a replaced segment is a new object under the
/// old name, with another inode, while the one still mapped keeps its own.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    bool operator==(const Identity& other) const
    {
        return device == other.device && inode == other.inode && size == other.size;
    }
};

/// The identity of the object now under `name`; none if nothing is there.
boost::optional<Identity> identityOf(const std::string& name)
{
    try {
        const bip::shared_memory_object object(bip::open_only, name.c_str(), bip::read_only);
        struct stat status {};
        if (::fstat(object.get_mapping_handle().handle, &status) != 0)
            return boost::none;
        return Identity{status.st_dev, status.st_ino, status.st_size};
    } catch (const bip::interprocess_exception&) {
        return boost::none;
    }
}

/// This process's mapping of one direction's data segment, kept from one message to the
/// next. Mapping a segment of a frame's size anew for each message would fault every
/// page in again, which costs more than the copy itself. The mapping is used only while
/// the object under the name is still the one mapped (same inode): the sender replaces
/// the segment when an object does not fit, and the main side's open() and a failed
/// transfer remove it, and none of them tells the other side.
class DataSegment {
public:
    /// The segment under `name`, mapped anew only if it is not the one mapped already;
    /// `make` maps it (open or create) when needed. Called under the slot's mutex, which
    /// every sender and receiver of the direction holds while it makes, replaces or maps
    /// the segment.
    template <class Make>
    ShmSegment& get(const std::string& name, Make make)
    {
        if (_mapped && identityOf(name) == _identity)
            return *_mapped;
        drop();
        const boost::optional<Identity> before = identityOf(name);
        std::unique_ptr<ShmSegment> mapped = make();
        const boost::optional<Identity> identity = identityOf(name);
        // A removed object never comes back under its name, so the same one before and
        // after means that it is the one mapped (or made here, if there was none). Else a
        // remover outside the hand-shake was at work, and nothing is kept.
        if (identity && (!before || *before == *identity)) {
            _mapped = std::move(mapped);
            _identity = *identity;
            return *_mapped;
        }
        _unkept = std::move(mapped);
        return *_unkept;
    }
    /// Unmaps (the segment itself stays, unless it has been removed).
    void drop() noexcept
    {
        _mapped.reset();
        _unkept.reset();
        _identity = Identity();
    }

private:
    std::unique_ptr<ShmSegment> _mapped;
    std::unique_ptr<ShmSegment> _unkept;
    Identity _identity;
};

} // namespace

class DMessageQueuePrivate {
public:
    /// Drops this process's mappings of the queues and the administration segment.
    void unmap() noexcept
    {
        queueIn.reset();
        queueOut.reset();
        admin.reset();
        dataIn.drop();
        dataOut.drop();
        condIn = nullptr;
        condOut = nullptr;
    }

    /// Removes the five shared objects of the names; what is not there is no failure.
    void removeSharedObjects() const noexcept
    {
        for (const std::string* object : {&queueInName, &queueOutName, &adminName, &dataInName, &dataOutName})
            bip::shared_memory_object::remove(object->c_str());
    }

    /// `abort`, when given, makes the wait for the slot abortable.
    template <class Data>
    void sendObject(const Data& data, const std::atomic<bool>* abort);
    template <class Data>
    void receiveObject(Data& data, const std::atomic<bool>* abort);
    void sendText(const std::string& text, const std::atomic<bool>* abort);
    std::string receiveText(const std::atomic<bool>* abort);

    std::unique_ptr<bip::message_queue> queueIn;
    std::unique_ptr<bip::message_queue> queueOut;
    std::unique_ptr<ShmSegment> admin;
    std::string name;
    std::string queueInName;
    std::string queueOutName;
    std::string adminName;
    std::string dataInName;
    std::string dataOutName;
    MessageCondition* condIn = nullptr;
    MessageCondition* condOut = nullptr;
    std::unique_ptr<bip::file_lock> mainLock;
    std::unique_ptr<bip::file_lock> subLock;
    /// The mappings of the segments of dataInName and dataOutName, each guarded by the
    /// mutex of its direction's slot.
    DataSegment dataIn;
    DataSegment dataOut;
};

template <class Data>
void DMessageQueuePrivate::sendObject(const Data& data, const std::atomic<bool>* abort)
{
    using ShmData = typename Crossing<Data>::Shared;
    if (!admin)
        throwNotOpen(name);
    throwIfAborted(abort);
    MessageCondition& condition = *condOut;
    try {
        bip::scoped_lock<bip::interprocess_mutex> lock(condition.mutex);
        waitUntil(condition, lock, abort, [&] { return condition.flag != 0; });
        condition.flag = 0;
        for (std::size_t size = Crossing<Data>::firstSize(data);; size += kSegmentGrowth) {
            // A segment left by an earlier message is taken as it is, whatever its size.
            ShmSegment& messageData = dataOut.get(dataOutName, [&] {
                return std::make_unique<ShmSegment>(bip::open_or_create, dataOutName.c_str(), size, nullptr,
                                                    bip::permissions(kPermissions));
            });
            try {
                const ShmAllocator allocator(messageData.get_segment_manager());
                messageData.construct<ShmData>(typeid(Data).name())(data, allocator);
                break;
            } catch (const bip::bad_alloc&) {
                // A bigger one goes under the same name: a receiver that has the old one
                // mapped sees another object under the name and maps the new one.
                dataOut.drop();
                bip::shared_memory_object::remove(dataOutName.c_str());
            }
        }
        // All waiters: another sending thread of this process may wait on the same
        // condition, and must not take the wake-up that is meant for the receiver.
        condition.condition.notify_all();
    } catch (const bip::interprocess_exception& e) {
        bip::scoped_lock<bip::interprocess_mutex> lock(condition.mutex);
        dataOut.drop();
        bip::shared_memory_object::remove(dataOutName.c_str());
        throw DMessageQueueException(e.what());
    }
}

template <class Data>
void DMessageQueuePrivate::receiveObject(Data& data, const std::atomic<bool>* abort)
{
    using ShmData = typename Crossing<Data>::Shared;
    if (!admin)
        throwNotOpen(name);
    throwIfAborted(abort);
    MessageCondition& condition = *condIn;
    try {
        bip::scoped_lock<bip::interprocess_mutex> lock(condition.mutex);
        waitUntil(condition, lock, abort, [&] { return condition.flag == 0; });
        ShmSegment& messageData = dataIn.get(
            dataInName, [&] { return std::make_unique<ShmSegment>(bip::open_only, dataInName.c_str()); });
        const ShmData* shmData = messageData.find<ShmData>(typeid(Data).name()).first;
        NORVEXA_ASSERT(shmData, "receive");
        Crossing<Data>::back(*shmData, data);
        messageData.destroy<ShmData>(typeid(Data).name());
        condition.flag = 1;
        condition.condition.notify_all();
    } catch (const bip::interprocess_exception& e) {
        bip::scoped_lock<bip::interprocess_mutex> lock(condition.mutex);
        dataIn.drop();
        bip::shared_memory_object::remove(dataInName.c_str());
        throw DMessageQueueException(e.what());
    }
}

DMessageQueue::DMessageQueue() : _d(std::make_unique<DMessageQueuePrivate>()) {}

DMessageQueue::DMessageQueue(const char* name) : DMessageQueue() { open(name); }

// A failure to close ends the process: the noexcept destructor lets nothing out.
DMessageQueue::~DMessageQueue() { close(); }

void DMessageQueue::open(const char* name)
{
    DMessageQueuePrivate& d = *_d;
    d.name = name;
    const std::string mainLockPath = kMainLockPrefix + d.name;
    const std::string subLockPath = kSubLockPrefix + d.name;
    d.adminName = kAdminPrefix + d.name;
    d.unmap();
    touch(mainLockPath);
    touch(subLockPath);
    d.mainLock.reset();
    d.subLock.reset();
    try {
        d.mainLock = std::make_unique<bip::file_lock>(mainLockPath.c_str());
        d.subLock = std::make_unique<bip::file_lock>(subLockPath.c_str());
        d.subLock->lock();
        SubLockGuard unlockOnExit(*d.subLock);
        // The main lock stays taken while the main side has the queue open; the operating
        // system frees it when that process dies.
        const bool isMain = d.mainLock->try_lock();
        if (!isMain)
            d.mainLock.reset();
        d.queueInName = (isMain ? kQueue1Prefix : kQueue2Prefix) + d.name;
        d.queueOutName = (isMain ? kQueue2Prefix : kQueue1Prefix) + d.name;
        d.dataInName = (isMain ? kData1Prefix : kData2Prefix) + d.name;
        d.dataOutName = (isMain ? kData2Prefix : kData1Prefix) + d.name;
        const bip::permissions permissions(kPermissions);
        if (isMain) {
            // Whatever a crashed run left behind goes first.
            d.removeSharedObjects();
            d.queueIn = std::make_unique<bip::message_queue>(bip::create_only, d.queueInName.c_str(),
                                                             kMaxMessages, kMaxMessageSize, permissions);
            d.queueOut = std::make_unique<bip::message_queue>(bip::create_only, d.queueOutName.c_str(),
                                                              kMaxMessages, kMaxMessageSize, permissions);
            d.admin = std::make_unique<ShmSegment>(bip::create_only, d.adminName.c_str(), kAdminSize,
                                                   nullptr, permissions);
            d.condIn = d.admin->construct<MessageCondition>(kCondition1)();
            d.condOut = d.admin->construct<MessageCondition>(kCondition2)();
        } else {
            d.queueIn = std::make_unique<bip::message_queue>(bip::open_only, d.queueInName.c_str());
            d.queueOut = std::make_unique<bip::message_queue>(bip::open_only, d.queueOutName.c_str());
            d.admin = std::make_unique<ShmSegment>(bip::open_only, d.adminName.c_str());
            d.condIn = d.admin->find<MessageCondition>(kCondition2).first;
            d.condOut = d.admin->find<MessageCondition>(kCondition1).first;
            // A main side that died between making the segment and its conditions.
            if (!d.condIn || !d.condOut) {
                d.unmap();
                throw bip::interprocess_exception(bip::error_info(ENOENT));
            }
        }
    } catch (const bip::interprocess_exception& e) {
        throw DMessageQueueException(e.what());
    }
}

void DMessageQueue::close()
{
    DMessageQueuePrivate& d = *_d;
    if (d.subLock) {
        try {
            d.subLock->lock();
            d.unmap();
            if (d.mainLock) {
                d.removeSharedObjects();
                d.mainLock.reset();
            }
            d.subLock->unlock();
        } catch (const bip::interprocess_exception& e) {
            throw DMessageQueueException(e.what());
        }
        d.subLock.reset();
    }
    for (std::string* text :
         {&d.name, &d.queueInName, &d.queueOutName, &d.adminName, &d.dataInName, &d.dataOutName})
        text->clear();
}

void DMessageQueuePrivate::sendText(const std::string& text, const std::atomic<bool>* abort)
{
    if (!queueOut)
        throwNotOpen(name);
    if (text.size() > kMaxMessageSize)
        throw DMessageQueueException("Maximum message length exceeded (4096 characters)");
    throwIfAborted(abort);
    try {
        if (!abort) {
            queueOut->send(text.data(), text.size(), 0);
            return;
        }
        while (!queueOut->timed_send(text.data(), text.size(), 0, sliceEnd()))
            throwIfAborted(abort);
    } catch (const bip::interprocess_exception& e) {
        throw DMessageQueueException(e.what());
    }
}

std::string DMessageQueuePrivate::receiveText(const std::atomic<bool>* abort)
{
    if (!queueIn)
        throwNotOpen(name);
    throwIfAborted(abort);
    char buffer[kMaxMessageSize];
    bip::message_queue::size_type received = 0;
    unsigned int priority = 0;
    try {
        if (!abort)
            queueIn->receive(buffer, sizeof buffer, received, priority);
        else
            while (!queueIn->timed_receive(buffer, sizeof buffer, received, priority, sliceEnd()))
                throwIfAborted(abort);
    } catch (const bip::interprocess_exception& e) {
        throw DMessageQueueException(e.what());
    }
    return std::string(buffer, received);
}

void DMessageQueue::send(const std::string& text) { _d->sendText(text, nullptr); }
std::string DMessageQueue::receive() { return _d->receiveText(nullptr); }
void DMessageQueue::send(const DImage& image) { _d->sendObject(image, nullptr); }
void DMessageQueue::send(const DArray<DPixel>& array) { _d->sendObject(array, nullptr); }
void DMessageQueue::send(const DStdDrawingList& list) { _d->sendObject(list, nullptr); }
void DMessageQueue::receive(DImage& image) { _d->receiveObject(image, nullptr); }
void DMessageQueue::receive(DArray<DPixel>& array) { _d->receiveObject(array, nullptr); }
void DMessageQueue::receive(DStdDrawingList& list) { _d->receiveObject(list, nullptr); }

void DMessageQueue::send(const std::string& text, const std::atomic<bool>& abort) { _d->sendText(text, &abort); }
std::string DMessageQueue::receive(const std::atomic<bool>& abort) { return _d->receiveText(&abort); }
void DMessageQueue::send(const DImage& image, const std::atomic<bool>& abort) { _d->sendObject(image, &abort); }
void DMessageQueue::send(const DArray<DPixel>& array, const std::atomic<bool>& abort)
{
    _d->sendObject(array, &abort);
}
void DMessageQueue::send(const DStdDrawingList& list, const std::atomic<bool>& abort)
{
    _d->sendObject(list, &abort);
}
void DMessageQueue::receive(DImage& image, const std::atomic<bool>& abort) { _d->receiveObject(image, &abort); }
void DMessageQueue::receive(DArray<DPixel>& array, const std::atomic<bool>& abort)
{
    _d->receiveObject(array, &abort);
}
void DMessageQueue::receive(DStdDrawingList& list, const std::atomic<bool>& abort)
{
    _d->receiveObject(list, &abort);
}

} // namespace imglib
} // namespace norvexa
