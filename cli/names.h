// The names given to `zvxfer send`, checked and expanded before anything
// goes on the line, and the exact files handed to the library.
//
// A name that exists is that file, whatever characters it holds (the shell
// already expanded the user's wildcards, or the user quoted a literal name).
// A name that does not exist and whose last part holds '*' or '?' is
// expanded here: '*' stands for any run of characters, '?' for one, and
// nothing else is special ('[' is an ordinary character).  Like the shell,
// neither matches a leading '.'.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace zvxfer::cli {

// True when `pattern` ('*' and '?' its only wildcards) matches all of `name`.
bool MatchesPattern(std::string_view pattern, std::string_view name);

struct CheckedNames {
    std::vector<std::string> files;    // the files to send, in order
    std::vector<std::string> problems; // "NAME: reason", one per bad name
};

// Check and expand the names.  With `subfolders` a wildcard name also
// matches in the subfolders of its folder (9 levels deep at most), after
// the matches of the folder itself.  Matches come in name order.
CheckedNames CheckSendNames(const std::vector<std::string> &names, bool subfolders);

// The library's send list treats '*' and '?' in a name's last part as
// wildcards, so a file whose name holds them would go out together with
// every other file it matches.  Such a file is offered through a private
// folder of its own holding one link to it under the same name, where the
// pattern matches only that link; the folders go with this object.
class ExactNames {
  public:
    ExactNames() = default;
    ExactNames(const ExactNames &) = delete;
    ExactNames &operator=(const ExactNames &) = delete;
    ~ExactNames();

    // The names to put in the library's list for `files`; false with the
    // reason when a private folder cannot be made.  `keepFolders`: the names
    // travel with their folders, so a private folder would show: refused.
    bool Build(const std::vector<std::string> &files, bool keepFolders, std::string &error);
    const std::vector<std::string> &Names() const { return names_; }

  private:
    std::string root_;
    std::vector<std::string> links_, folders_;
    std::vector<std::string> names_;
};

} // namespace zvxfer::cli
