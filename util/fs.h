// File-system helpers. Every helper reports failure by its result and never
// throws; copies never leave a half-written target behind.
#ifndef WEBCHANNEL_UTIL_FS_H
#define WEBCHANNEL_UTIL_FS_H

#include <string>

#include "../channel/webchannel_export.h"

// Directory part of a path: the text before the last '/' or '\\'; when that
// separator is also the first one, it is included ("/x" gives "/"); empty
// without a separator.
WEBCHANNEL_EXPORT std::string get_dirname(const std::string& path);
// Last component of a path (after the last '/' or '\\').
WEBCHANNEL_EXPORT std::string get_basename(const std::string& path);
// Creates a directory and its missing parents with `mode`. Trailing '/' are
// dropped, then mkdir runs for the prefix before every '/' and for the whole
// path; failures of single steps (such as an existing directory) are ignored.
// 0 when the directory exists afterwards, else -1.
WEBCHANNEL_EXPORT int folder_create(const std::string& path, unsigned mode);
// Copies a directory tree into `to` (created with missing parents, merged
// when it exists): regular files through file_copy, directories with the
// source's permissions, symbolic links as links (never followed). Device
// nodes, FIFOs and sockets are skipped. A copy into a sub-directory of the
// source does not descend into the copy itself. 0, or -1 when anything
// could not be copied.
WEBCHANNEL_EXPORT int folder_copy(const std::string& from, const std::string& to);
// Removes a directory tree; 0 when it is gone (or was never there), else -1.
// Symbolic links inside are removed, never followed. A path that is not a
// directory (a file, a link) is left alone and gives -1.
WEBCHANNEL_EXPORT int folder_remove(const std::string& path);
// Copies a file through a temporary beside the target that is renamed into
// place only when complete and synced, so a failure keeps any old target and
// leaves no temporary. The copy gets the source's permission bits (not the
// set-id bits). 0 or -1.
WEBCHANNEL_EXPORT int file_copy(const std::string& from, const std::string& to);
// Moves a file (rename, or copy and delete across file systems); 0 or -1.
WEBCHANNEL_EXPORT int file_move(const std::string& from, const std::string& to);
// Deletes a file; the path is used as given. A missing file is no error (nor
// is a path below a regular file, which cannot exist). Any other failure,
// such as the path naming a directory, is reported through the utility
// logger's error() as
// remove_file: can't delete file "<path>": <reason>
// 0 when the file is gone, else -1.
WEBCHANNEL_EXPORT int remove_file(const std::string& path);
// Normalises a path textually (links are not resolved): '\\' becomes '/',
// repeated '/' collapse, "." segments go and ".." segments cancel the segment
// before them where there is one. A leading ".." of a relative path is kept
// ("a/../../b" gives "../b"); at the root it is dropped ("/../a" gives "/a").
// A trailing '/' goes, except for "/" itself; a relative path that cancels
// out entirely gives "." and an empty path stays empty.
WEBCHANNEL_EXPORT std::string normalize_path(const std::string& path);
// File tests.
WEBCHANNEL_EXPORT bool file_exists(const std::string& path);    // a regular file
WEBCHANNEL_EXPORT bool folder_exists(const std::string& path);  // a directory
WEBCHANNEL_EXPORT bool path_exists(const std::string& path);    // anything, a dangling link too
WEBCHANNEL_EXPORT long long get_file_size(const std::string& path);  // a regular file's; else -1

#endif
