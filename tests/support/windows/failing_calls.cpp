#include "tests/support/failing_vfs.h"

// SQLite's calls of this system cannot be replaced one by one by ones of the same type.
void marbleway::tests::interceptCalls() {}
