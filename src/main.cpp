// kap-vorn takes no arguments, reads no configuration and keeps no state on disk.
#include "manager/vorn_manager.hpp"

int main() { return vorn_manager_run(); }
