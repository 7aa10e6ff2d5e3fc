// The bottom line of a terminal session's screen: the menu, the questions,
// a transfer's progress and its summary are drawn on the last row with the
// cursor saved and put back, so the remote's cursor and colours stay as
// they were.
#pragma once
#include <string>
#include <string_view>

namespace zvxfer::cli {

// Bytes that show `text` alone on row `rows` (the last) in the default
// colours and put the cursor back where it was.  `text` must already be
// safe to show and fit the row.
std::string BottomLineBytes(std::string_view text, int rows);

// Bytes that show `text` on the last row and leave the cursor after it (a
// question being answered); `first` saves the cursor before (a redraw as
// the answer changes must not save it again).  EndQuestionBytes() clears
// the row and puts the saved cursor back.
std::string QuestionBytes(std::string_view text, int rows, bool first);
std::string EndQuestionBytes(int rows);

// Rows of the terminal on standard error (24 when it does not say).
int TerminalRows();

} // namespace zvxfer::cli
