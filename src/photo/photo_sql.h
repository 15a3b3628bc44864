// Escaping of paths and share names for the photo database's statements, as
// every photo routine does it: quoted for a literal into 2 × length + 1 bytes,
// and for a LIKE pattern escaped once more into 3 × length + 1 bytes. Each
// returns null, with the failure logged, when a buffer or an escape fails.
#pragma once

#include "photo/photo_scoped.h"

photo_scoped::CText QuoteSql(const char* text);
photo_scoped::CText EscapeLike(const char* text);
// QuoteSql, then EscapeLike: the form of nearly every LIKE condition.
photo_scoped::CText QuotedLike(const char* text);
