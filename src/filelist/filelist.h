// Send-file lists: the host's quoted name list turned into existing files.
//
// The list string holds names separated by double quotes; runs of quotes
// and commas before a name are skipped, so "\"/a b/x.txt\",\"/d/*.bin\""
// names two patterns while the unquoted a.txt,b.txt is one name.  Each name
// is a folder part (up to its last '/' or '\') and a wildcard pattern
// (subfolders are joined with the separator the name uses); every file
// matching it comes out in directory order, then (with the subfolder flag)
// the matches of each subfolder, depth first, at most 9 levels below the
// named folder.  Folders, "." and ".." never come out as files.
#pragma once
#include "zvxfer.h"

namespace zvxfer {

// Longest folder part and pattern a name may have (the terminator not
// counted).  A longer name, or a subfolder whose path would be longer, is
// treated as matching nothing: it is never cut down to another name.
constexpr int kListFieldMax = 255;
// SearchError for a name that matched nothing (the system's "file not
// found" number), for a name too long to search, and for a file of 2^31
// bytes or more, passed over because 32-bit sizes cannot carry it (the
// system's "file too large").
constexpr int32_t kSearchNotFound = 2;
constexpr int32_t kSearchNameTooLong = 206;
constexpr int32_t kSearchTooLarge = 27;

// A new list positioned before the first name, or nullptr when out of
// memory.  `names` is read (and split) in place and must outlive the list.
// Next(record, list) returns 1 with Path, Size and ModTime of the next file,
// or 0 when the list is exhausted; only a sending record (Sending == 1)
// reads past the first name, and only a sending record gets the level-1
// status lines MsgNoFileMatches for a name that matches nothing and MsgTooLargeToSend for a file
// passed over as too large (the list goes on with the next file).  Destroy closes every
// search and frees the list.
SendFileList *SendFileListCreate(char *names, bool subfolders);

} // namespace zvxfer
