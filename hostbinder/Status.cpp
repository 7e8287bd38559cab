#include <binder/Status.h>

#include <binder/Parcel.h>
#include <utils/String16.h>

#include "protocol/ParcelWire.h"

namespace android {
namespace binder {

// binderd's service manager writes the same codes.
static_assert(Status::EX_NONE == hostbinder::kExNone && Status::EX_SECURITY == hostbinder::kExSecurity &&
              Status::EX_ILLEGAL_ARGUMENT == hostbinder::kExIllegalArgument &&
              Status::EX_NULL_POINTER == hostbinder::kExNullPointer &&
              Status::EX_ILLEGAL_STATE == hostbinder::kExIllegalState);
namespace {

// Skips a block that starts with its own int32 size (the size counts those
// four bytes). A size too small to cover itself skips just the size field.
status_t skipSizedBlock(const Parcel& parcel) {
    const size_t start = parcel.dataPosition();
    int32_t size = 0;
    status_t status = parcel.readInt32(&size);
    if (status != OK) {
        return status;
    }
    if (size < static_cast<int32_t>(sizeof(int32_t))) {
        return OK;
    }
    if (static_cast<size_t>(size) > parcel.dataSize() - start) {
        return BAD_VALUE;
    }
    parcel.setDataPosition(start + static_cast<size_t>(size));
    return OK;
}

// Skips the remote stack-trace header: an int32 size and that many bytes.
status_t skipStackTraceHeader(const Parcel& parcel) {
    int32_t size = 0;
    status_t status = parcel.readInt32(&size);
    if (status != OK) {
        return status;
    }
    if (size < 0 || static_cast<size_t>(size) > parcel.dataAvail()) {
        return BAD_VALUE;
    }
    parcel.setDataPosition(parcel.dataPosition() + static_cast<size_t>(size));
    return OK;
}

}  // namespace

Status::Status(int32_t exceptionCode, int32_t errorCode, const String8& message)
    : mException(exceptionCode), mErrorCode(errorCode), mMessage(message) {}

Status Status::ok() { return Status(); }

Status Status::fromExceptionCode(int32_t exceptionCode) { return fromExceptionCode(exceptionCode, String8()); }

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    return fromExceptionCode(exceptionCode, String8(message));
}

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    Status status;
    status.setException(exceptionCode, message);
    return status;
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode) {
    return fromServiceSpecificError(serviceSpecificErrorCode, String8());
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode, const char* message) {
    return fromServiceSpecificError(serviceSpecificErrorCode, String8(message));
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode, const String8& message) {
    return Status(EX_SERVICE_SPECIFIC, serviceSpecificErrorCode, message);
}

Status Status::fromStatusT(status_t status) {
    Status result;
    result.setFromStatusT(status);
    return result;
}

std::string Status::exceptionToString(status_t exceptionCode) {
    switch (exceptionCode) {
        case EX_NONE: return "EX_NONE";
        case EX_SECURITY: return "EX_SECURITY";
        case EX_BAD_PARCELABLE: return "EX_BAD_PARCELABLE";
        case EX_ILLEGAL_ARGUMENT: return "EX_ILLEGAL_ARGUMENT";
        case EX_NULL_POINTER: return "EX_NULL_POINTER";
        case EX_ILLEGAL_STATE: return "EX_ILLEGAL_STATE";
        case EX_NETWORK_MAIN_THREAD: return "EX_NETWORK_MAIN_THREAD";
        case EX_UNSUPPORTED_OPERATION: return "EX_UNSUPPORTED_OPERATION";
        case EX_SERVICE_SPECIFIC: return "EX_SERVICE_SPECIFIC";
        case EX_PARCELABLE: return "EX_PARCELABLE";
        case EX_HAS_REPLY_HEADER: return "EX_HAS_REPLY_HEADER";
        case EX_TRANSACTION_FAILED: return "EX_TRANSACTION_FAILED";
        default: return "UNKNOWN_EXCEPTION(" + std::to_string(exceptionCode) + ")";
    }
}

void Status::setException(int32_t ex, const String8& message) {
    mException = ex;
    // A transport failure must carry a transport error; any other exception
    // carries none until a service-specific code is set.
    mErrorCode = ex == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : OK;
    mMessage = ex == EX_NONE ? String8() : message;
}

void Status::setServiceSpecificError(int32_t errorCode, const String8& message) {
    mException = EX_SERVICE_SPECIFIC;
    mErrorCode = errorCode;
    mMessage = message;
}

void Status::setFromStatusT(status_t status) {
    mException = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
    mErrorCode = status;
    mMessage = String8();
}

status_t Status::readFromParcel(const Parcel& parcel) {
    int32_t exception = EX_NONE;
    status_t status = parcel.readInt32(&exception);
    if (status == OK && exception == EX_HAS_REPLY_HEADER) {
        status = skipSizedBlock(parcel);
        exception = EX_NONE;
    }
    if (status != OK) {
        setFromStatusT(status);
        return status;
    }
    if (exception == EX_NONE) {
        *this = ok();
        return OK;
    }

    String16 message;
    status = parcel.readString16(&message);
    if (status == OK) status = skipStackTraceHeader(parcel);
    int32_t errorCode = OK;
    if (status == OK && exception == EX_SERVICE_SPECIFIC) status = parcel.readInt32(&errorCode);
    if (status == OK && exception == EX_PARCELABLE) status = skipSizedBlock(parcel);
    if (status != OK) {
        setFromStatusT(status);
        return status;
    }
    if (exception == EX_SERVICE_SPECIFIC) {
        setServiceSpecificError(errorCode, String8(message));
    } else {
        setException(exception, String8(message));
    }
    return OK;
}

status_t Status::writeToParcel(Parcel* parcel) const {
    if (mException == EX_TRANSACTION_FAILED) {
        return mErrorCode;
    }
    status_t status = parcel->writeInt32(mException);
    if (status != OK || mException == EX_NONE) {
        return status;
    }
    status = parcel->writeString16(String16(mMessage));
    if (status == OK) status = parcel->writeInt32(0);  // empty remote stack-trace header
    if (status == OK && mException == EX_SERVICE_SPECIFIC) status = parcel->writeInt32(mErrorCode);
    if (status == OK && mException == EX_PARCELABLE) status = parcel->writeInt32(0);
    return status;
}

String8 Status::toString8() const {
    if (isOk()) {
        return String8("No error");
    }
    std::string text = "Status(" + std::to_string(mException) + ", " + exceptionToString(mException) + "): '";
    if (mException == EX_SERVICE_SPECIFIC || mException == EX_TRANSACTION_FAILED) {
        text += std::to_string(mErrorCode) + ": ";
    }
    text += mMessage.c_str();
    text += "'";
    return String8(text.c_str());
}

}  // namespace binder
}  // namespace android
