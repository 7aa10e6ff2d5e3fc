// Send-file lists: the host's quoted name list turned into existing files.
#pragma once
#include "zvxfer.h"

namespace zvxfer {

// A new list positioned before the first name, or nullptr when out of
// memory.  `names` is read (and split) in place and must outlive the list.
SendFileList *SendFileListCreate(char *names, bool subfolders);

} // namespace zvxfer
