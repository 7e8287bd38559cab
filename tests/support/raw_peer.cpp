#include "raw_peer.h"

#include <linux/android/binder.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <binder/Parcel.h>
#include <utils/String16.h>

namespace tivra_test {

using namespace android::hostbinder;

RawPeer::RawPeer(const std::string& path) : mFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (mFd >= 0 && connect(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close();
    }
}

void RawPeer::close() {
    if (mFd >= 0) {
        ::close(mFd);
        mFd = -1;
    }
}

bool RawPeer::sendBytes(const void* bytes, size_t size) {
    const auto* cursor = static_cast<const uint8_t*>(bytes);
    for (ssize_t n = 0; size > 0; cursor += n, size -= static_cast<size_t>(n)) {
        if ((n = send(mFd, cursor, size, MSG_NOSIGNAL)) <= 0) {
            return false;
        }
    }
    return true;
}

bool RawPeer::sendFrame(uint32_t command, const void* payload, size_t size) {
    std::vector<uint8_t> frame;
    appendFrame(&frame, command, payload, size);
    return sendBytes(frame);
}

std::vector<uint8_t> RawPeer::transaction(uint64_t handle, uint32_t code, const std::vector<uint8_t>& data,
                                          const std::vector<uint64_t>& offsets, uint32_t flags) {
    TransactionHeader header{};
    header.target = handle;
    header.code = code;
    header.flags = flags;
    header.dataSize = static_cast<uint32_t>(data.size());
    header.offsetsCount = static_cast<uint32_t>(offsets.size());
    std::vector<uint8_t> frame;
    appendTransaction(&frame, kTransaction, header, data.data(), offsets.data());
    return frame;
}

int64_t RawPeer::hello(uint32_t command, std::vector<uint8_t>* answer, milliseconds timeout) {
    const HelloProcess hello{15, 0};
    std::vector<uint8_t> ignored;
    sendFrame(command, &hello, command == kHelloProcess ? sizeof(hello) : 0);
    return nextCommand(answer != nullptr ? answer : &ignored, timeout);
}

void RawPeer::finishSending() { shutdown(mFd, SHUT_WR); }

int64_t RawPeer::nextCommand(std::vector<uint8_t>* payload, milliseconds timeout) {
    FrameHeader header;
    if (!readExactly(&header, sizeof(header), timeout)) {
        return mClosed ? 0 : -1;
    }
    payload->resize(header.payloadSize);
    if (!readExactly(payload->data(), payload->size(), timeout)) {
        return mClosed ? 0 : -1;
    }
    return header.command;
}

bool RawPeer::closedByBinderd(milliseconds timeout) {
    pollfd hangup{mFd, POLLRDHUP, 0};
    return poll(&hangup, 1, static_cast<int>(timeout.count())) > 0 && (hangup.revents & (POLLRDHUP | POLLHUP)) != 0;
}

bool RawPeer::readExactly(void* out, size_t size, milliseconds timeout) {
    auto* bytes = static_cast<uint8_t*>(out);
    while (size > 0) {
        pollfd readable{mFd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(timeout.count())) <= 0) {
            return false;
        }
        // Descriptors binderd hands over (a channel's end) are not wanted:
        // a plain read has the system close them.
        const ssize_t n = recv(mFd, bytes, size, 0);
        if (n <= 0) {
            mClosed = true;
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

RawSession::RawSession(const std::string& path) : mControl(path), mThread(path) {
    std::vector<uint8_t> welcome;
    if (mControl.hello(kHelloProcess, &welcome) == kWelcome && welcome.size() == sizeof(mToken)) {
        std::memcpy(&mToken, welcome.data(), sizeof(mToken));
        mReady = addThread(mThread);
    }
}

bool RawSession::addThread(RawPeer& peer) const { return peer.sendFrame(kHelloThread, &mToken, sizeof(mToken)); }

int64_t RawSession::answer(std::vector<uint8_t>* reply, milliseconds timeout) {
    std::vector<uint8_t> payload;
    for (;;) {
        const int64_t command = mThread.nextCommand(&payload, timeout);
        int32_t status = 0;
        TransactionView view;
        if (command <= 0) {
            return -1;
        } else if (command == kRefused && payload.size() == sizeof(status)) {
            std::memcpy(&status, payload.data(), sizeof(status));
            return status;
        } else if (command == kIncomingReply &&
                   parseTransaction({kIncomingReply, payload.data(), static_cast<uint32_t>(payload.size())}, &view)) {
            if (reply != nullptr) {
                reply->assign(view.data, view.data + view.header.dataSize + view.header.offsetsCount * 8);
            }
            return view.header.status;
        }
        // Anything else (a thread welcome) is not the answer.
    }
}

namespace {

// The interface token, then the name when one is given.
std::vector<uint8_t> serviceManagerRequest(const std::string* name) {
    android::Parcel data;
    data.writeInterfaceToken(android::String16("android.os.IServiceManager"));
    if (name != nullptr) {
        data.writeString16(android::String16(name->c_str()));
    } else {
        data.writeInt32(0);
    }
    return std::vector<uint8_t>(data.data(), data.data() + data.dataSize());
}

// The exception code that starts a reply (INT32_MIN: none), after a transaction's status.
int32_t exceptionOf(int64_t status, const std::vector<uint8_t>& reply) {
    int32_t exception = status == 0 ? INT32_MIN : static_cast<int32_t>(status);
    if (status == 0 && reply.size() >= sizeof(exception)) {
        std::memcpy(&exception, reply.data(), sizeof(exception));
    }
    return exception;
}

}  // namespace

int32_t RawSession::addService(const std::string& name, uint64_t address) {
    std::vector<uint8_t> bytes = serviceManagerRequest(&name);
    flat_binder_object object{};
    object.hdr.type = BINDER_TYPE_BINDER;
    object.flags = 0x113;
    object.binder = object.cookie = address;
    const uint64_t offset = bytes.size();
    // The object, then its stability word and two zero words.
    const int32_t stability[3] = {12, 0, 0};
    bytes.resize(offset + sizeof(object) + sizeof(stability));
    std::memcpy(bytes.data() + offset, &object, sizeof(object));
    std::memcpy(bytes.data() + offset + sizeof(object), stability, sizeof(stability));
    std::vector<uint8_t> reply;
    if (!mThread.sendTransaction(0, kAddService, bytes, {offset})) {
        return INT32_MIN;
    }
    return exceptionOf(answer(&reply), reply);
}

uint32_t RawSession::checkService(const std::string& name) {
    std::vector<uint8_t> reply;
    flat_binder_object object{};
    if (!mThread.sendTransaction(0, kCheckService, serviceManagerRequest(&name)) ||
        exceptionOf(answer(&reply), reply) != 0 || reply.size() < sizeof(int32_t) + sizeof(object)) {
        return 0;
    }
    std::memcpy(&object, reply.data() + sizeof(int32_t), sizeof(object));
    return object.hdr.type == BINDER_TYPE_HANDLE ? object.handle : 0;
}

std::vector<uint8_t> RawSession::listServicesRequest() { return serviceManagerRequest(nullptr); }

}  // namespace tivra_test
