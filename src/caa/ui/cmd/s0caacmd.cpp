#include "caa/ui/cmd/caa_profile.h"

int main(int argc, char** argv) { return caacmd_main(argc, argv); }
