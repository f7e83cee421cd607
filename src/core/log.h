// Every message of the library: tag "libzelkcpufreqtime", text "[function:line] ...".
#pragma once

#include <android/log.h>

#define ZELK_LOG_TAG "libzelkcpufreqtime"

// `func` is the name that the message reports (some messages name a step, not a C++ function).
#define ZELK_LOG_AS(prio, func, fmt, ...) \
  __android_log_print((prio), ZELK_LOG_TAG, "[%s:%d] " fmt, (func), __LINE__, ##__VA_ARGS__)

#define ZELK_LOGE(fmt, ...) ZELK_LOG_AS(ANDROID_LOG_ERROR, __func__, fmt, ##__VA_ARGS__)
#define ZELK_LOGW(fmt, ...) ZELK_LOG_AS(ANDROID_LOG_WARN, __func__, fmt, ##__VA_ARGS__)
#define ZELK_LOGI(fmt, ...) ZELK_LOG_AS(ANDROID_LOG_INFO, __func__, fmt, ##__VA_ARGS__)
#define ZELK_LOGD(fmt, ...) ZELK_LOG_AS(ANDROID_LOG_DEBUG, __func__, fmt, ##__VA_ARGS__)
