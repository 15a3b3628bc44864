// Escaping of paths and share names for the photo database's statements, as
// every photo routine does it: quoted for a literal into 2 × length + 1 bytes,
// and for a LIKE pattern escaped once more into 3 × length + 1 bytes. Each
// returns null, with the failure logged under the caller's source file, when
// a buffer or an escape fails. Used by the photo rows (photo_index) and the
// album table (photo_share) alike.
#pragma once

#include "photo/photo_scoped.h"

photo_scoped::CText QuoteSql(const char* text, const char* file = __builtin_FILE(), int line = __builtin_LINE());
// An already quoted text escaped once more for a LIKE pattern.
photo_scoped::CText EscapeLike(const char* quoted,
                               const char* file = __builtin_FILE(), int line = __builtin_LINE());
// QuoteSql, then EscapeLike: the form of every LIKE condition. EscapeLike on
// unquoted text would read a run of two quotes as one and match another name.
photo_scoped::CText QuotedLike(const char* text, const char* file = __builtin_FILE(), int line = __builtin_LINE());
