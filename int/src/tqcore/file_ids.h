// File identifiers of the library's raising sites, in the version-control keyword form that
// SourceLocation::file_path() and file_depot_path() read.
#pragma once

#define TQCORE_FILE_ID(name) "$Id: //tqcore/int/src/tqcore/" name ".cpp#1 $"
