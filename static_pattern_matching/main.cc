#include "static_pattern_matching/ksd_main.h"

int main(int argc, char** argv) { return korvo::static_pattern_matching_daemon::ksd_main(argc, argv); }
