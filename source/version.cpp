// The version this library was built as, answered at run time so a host can
// tell which liblinnet.so it loaded.
#include <linnet/version.h>

int LinnetVersion() { return LINNET_VERSION; }
