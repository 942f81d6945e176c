// Where a program with coverage counters maps its file: part of each program of the preset "coverage". A path among the
// compiler's flags would keep the compiler cache from sharing objects between folders. %c counts in the mapped file,
// which programs that are killed leave, too; %m names it after the program, so that all runs of one share one.
extern "C" __attribute__((visibility("hidden"))) const char __llvm_profile_filename[] = PROFILE_PATH;
