// The private folder of an installation, in which libqor lies with its modules and catalogs, as a program sees it from
// its own folder. An installed copy of this file has the folder of that installation. A program that brings libqor
// along in another place defines it when it is compiled, the same for all of its sources.
#pragma once

#ifndef QOR_LIBRARY_FOLDER
#define QOR_LIBRARY_FOLDER "../lib/qor"
#endif
