/*
 * tarn_tool.h - Tarn_Tool, the companion library of Tarn_Device.
 *
 * Small host-side services that Tarn_Device imports: file existence, local
 * time formatting, directory creation and ASCII lower-casing. They are kept
 * in a library of their own so that an application can ship or replace them
 * beside Tarn_Device.
 *
 * Thread safety: every function is safe to call from any thread.
 */
#ifndef TARN_TOOL_H
#define TARN_TOOL_H

#include <stddef.h>
#include <stdint.h>

#if defined(TARN_BUILDING_LIBRARY)
#define TARN_TOOL_API __attribute__((visibility("default")))
#else
#define TARN_TOOL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Tells whether a host file or directory exists.
 *
 * @param path Host path; may be NULL. Owned by the caller.
 * @return 1 when something exists at path, 0 otherwise (also for NULL).
 */
TARN_TOOL_API int TarnIsFileExists(const char *path);

/**
 * Formats a time as local time.
 *
 * @param seconds Seconds since the epoch (signed 32-bit, as devices store it).
 * @param format strftime format, e.g. "%Y/%m/%d %H:%M:%S". Owned by the caller.
 * @param size Size of the buffer the text must fit in, terminator included.
 * @return A new text of at most size - 1 characters, released by the caller
 *         with free(); NULL when format is NULL or size is 0.
 */
TARN_TOOL_API char *TarnGetLocalFormatTime(int32_t seconds, const char *format, size_t size);

/**
 * Creates a host directory and any missing parent directories.
 *
 * @param path Host path. Owned by the caller.
 * @return 0 when the directory exists afterwards, non-zero otherwise
 *         (also for NULL, an empty path, or a file in the way).
 */
TARN_TOOL_API int TarnMkdir(const char *path);

/**
 * Lower-cases ASCII letters of a text in place.
 *
 * Bytes of 0x80 and above are left alone, so UTF-8 text stays valid.
 *
 * @param text NUL-terminated text to change; NULL is accepted and ignored.
 */
TARN_TOOL_API void TarnToLower(char *text);

#ifdef __cplusplus
}
#endif

#endif /* TARN_TOOL_H */
