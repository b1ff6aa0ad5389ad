// The three log hooks for the fuzz targets: every message is built by the
// library (so its rendering is fuzzed too) and then dropped. The text is
// never used as a format: a '%' read from the input must not reach printf.
extern "C" {
int debug_level = 11;  // CRouteTable::Dump renders only above 10
int dbg_can_log(int) { return 0; }
void _debug(const char*, int, const char*, ...) {}
}
