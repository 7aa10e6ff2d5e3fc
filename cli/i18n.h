// The program's own words, translated through gettext (the program's text
// domain is set up once in main).  Mark every text a user reads:
//   _("text")        a translated plain string
//   F_("{} of {}")   a translated fmt format string (checked at run time)
//   N_("text")       marked for translation, translated later with _()
#pragma once

#include <fmt/format.h>
#include <libintl.h>

#define _(text) ::gettext(text)
#define N_(text) text
#define F_(text) ::fmt::runtime(::gettext(text))
