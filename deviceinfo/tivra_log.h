#pragma once

#include <android/log.h>

// Every line the library writes to the platform log carries this tag.
#define TIVRA_LOG_TAG "libtivra"

#define TIVRA_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, TIVRA_LOG_TAG, __VA_ARGS__)
#define TIVRA_LOGI(...) __android_log_print(ANDROID_LOG_INFO, TIVRA_LOG_TAG, __VA_ARGS__)
