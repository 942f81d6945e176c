#include "CommandLine.h"

int main(int argc, char** argv) { return conformance::run(argc, argv); }
