// Placeholder until database access lands.
#include "platform/orvodb.h"

std::string OrvoDBLocation(OrvoDatabase) { return {}; }
ORVODB* OrvoDBConnect(OrvoDatabase) { return nullptr; }
int ORVODBFlush() { return -1; }
void ORVODBCloseAll() {}
int ORVODBExecute(ORVODB*, const char*, ORVODBResult**) { return -1; }
int ORVODBFetchRow(ORVODBResult*, ORVODBRow*) { return -1; }
const char* ORVODBFetchField(ORVODBResult*, ORVODBRow, const char*) { return nullptr; }
int ORVODBRowCount(const ORVODBResult*) { return 0; }
void ORVODBFreeResult(ORVODBResult*) {}
const char* ORVODBErrorGet(ORVODB*) { return ""; }
int ORVODBEscapeString(char*, const char*, size_t) { return -1; }
int ORVODBEscapeBackslash(char*, size_t, const char*) { return -1; }
