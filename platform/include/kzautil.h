/* libkzautil.so: shared libraries, paths, files, text and ini files. */
#ifndef KZEMDLMGR_PLATFORM_INCLUDE_KZAUTIL_H
#define KZEMDLMGR_PLATFORM_INCLUDE_KZAUTIL_H

#define KZAUTIL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Unless a comment says otherwise: functions may be called from any thread, texts and paths stay
 * the caller's, results are 0 for success and an error number (errno.h) for failure, and a null
 * pointer gives EINVAL. Only kze_dirutils_path_transform expands "@" in a path.
 */

/*
 * Opens the shared library `path`, all its symbols bound at once and none of them visible to other
 * libraries. *handle_out is a handle for kze_dll_close(), on failure null. ENOENT when the file
 * isn't there, ELIBACC when it is and can't be loaded; the loader's own words go to the log at
 * level 2.
 */
KZAUTIL_API int kze_dll_open(const char *path, void **handle_out);

/*
 * Finds the symbol `name`. *address_out is its address, valid until the library is closed, on
 * failure null. ENOENT when the library has no such symbol (or one whose address is null), with
 * the loader's own words in the log at level 2.
 */
KZAUTIL_API int kze_dll_get_addr(void *handle, const char *name, void **address_out);

/* Closes a library. ELIBACC when the loader refuses, with its words in the log at level 2. */
KZAUTIL_API int kze_dll_close(void *handle);

/*
 * Copies `path` to `out`, a buffer of `size` bytes, where a leading "@" (followed by "/" or
 * nothing) is replaced with the directory of the running program, or with the value of
 * KZE_AGENT_HOME where that is set. Nothing else is resolved or normalised. 0, or -1 when a pointer
 * is null, the result with its end doesn't fit or the directory can't be told; `out` is then the
 * empty text (if it can hold one).
 */
KZAUTIL_API int kze_dirutils_path_transform(const char *path, char *out, unsigned int size);

/*
 * Makes the directory `path` with permissions `mode` (less the umask), and missing parents, whose
 * owner may always write them. 0 also when the directory exists, whose mode then stays. A file in
 * the way gives EEXIST.
 */
KZAUTIL_API int kze_dirutils_mkdir(const char *path, unsigned int mode);

/* Non-zero when something, a directory included, is at `path`; a link counts by what it points
 * to. 0 also for null. */
KZAUTIL_API int kze_path_is_exist_u(const char *path);

/* Deletes a file, or a link, not a directory. */
KZAUTIL_API int kze_path_del_file_u(const char *path);

/*
 * Renames a file, replacing what `to` was. Across file systems a regular file is copied as
 * kze_file_copy() does and then deleted.
 */
KZAUTIL_API int kze_file_rename(const char *from, const char *to);

/*
 * Copies the regular file `from` to `to` with its permissions. The copy is written beside the
 * target, synced and renamed into place: after a crash `to` is what it was or the whole copy. One
 * unfinished copy, ".<name>.new", may stay behind; the next one takes its place. Where `to` is a
 * link, its target is replaced. EINVAL when either is no regular file.
 */
KZAUTIL_API int kze_file_copy(const char *from, const char *to);

/* A number, 0 or above, that varies with the time; not to be relied on for secrets. */
KZAUTIL_API int kze_rand_by_time(void);

/*
 * Formats like printf into `out`, at most `size` bytes with the terminating one; the result is
 * always terminated when size isn't 0. Returns the length the whole text has, so that a result of
 * `size` or more means it was cut; -1 when it can't be formatted, and `out` is then empty. A null
 * `out` counts as a size of 0.
 */
KZAUTIL_API int kze_str_snprintf(char *out, unsigned int size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/*
 * Copies `src` into `dest`, at most `size` bytes with the terminating one; the result is always
 * terminated when size isn't 0. Returns the length of `src`, so that a result of `size` or more
 * means it was cut. A null `src` counts as empty, a null `dest` as a size of 0.
 */
KZAUTIL_API unsigned int kze_str_strlcpy(char *dest, const char *src, unsigned int size);

/* Non-zero when something, a directory included, is at `path`; the same as kze_path_is_exist_u. */
KZAUTIL_API int is_file_exist(const char *path);

/*
 * Ini files. Sections and keys are case-sensitive; the keys before the first header belong to the
 * section "". Where a key stands twice in a section, the last one counts. Lines that begin with ";"
 * or "#" are comments; behind a value neither begins one. Blanks around a value aren't part of it;
 * where it begins or ends with some, double quotes stand around it, k = " v ". Any other quotes are
 * part of the value. Either kind of line end and a UTF-8 byte order mark are understood; bytes
 * above 127 are taken as they are. A document isn't locked: one thread at a time, though it needn't
 * be always the same.
 */

/*
 * Reads a file into a document, to be released with kze_ini_file_free(). A null path makes an
 * empty document. Null when the file is missing, unreadable, no regular file, larger than 1 MiB or
 * no text (it holds a zero byte), or when there is no memory.
 */
KZAUTIL_API void *kze_ini_file_load(const char *path);

/* The value of a key, or null where there is none. The text is the document's, until a key is set
 * or the document is freed. */
KZAUTIL_API const char *kze_ini_file_get(void *ini, const char *section, const char *key);

/*
 * Adds or replaces a value; the section is made if needed. The strings are copied, and no other
 * byte of the document changes. With nothing changed, EINVAL for what would not read back the same
 * (an empty key, a line end or other control character, "=" in a key, "]" in a section, a key that
 * begins like a comment), and EFBIG past 1 MiB. A value that begins or ends with blanks, or is such
 * a one in quotes itself, is written in quotes; each other as it is.
 */
KZAUTIL_API int kze_ini_file_set(void *ini, const char *section, const char *key,
                                 const char *value);

/*
 * Writes the document to `path`: what was read, comments and all, with what was set. `flags` must
 * be 0. The file is written beside the target, synced and renamed into place: after a crash the old
 * file or the new one is there, whole. One unfinished file, ".<name>.new", may stay behind; the
 * next save takes its place. Saves of one file wait for each other. The target keeps its
 * permissions, a new one gets 0600. Where `path` is a link, its target is replaced.
 */
KZAUTIL_API int kze_ini_file_save(void *ini, const char *path, int flags);

/* Releases a document; null is allowed. */
KZAUTIL_API void kze_ini_file_free(void *ini);

#ifdef __cplusplus
}
#endif

#endif
