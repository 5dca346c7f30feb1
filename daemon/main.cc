#include "daemon/entry.h"

int main(int argc, char** argv) {
  return tarnik::tarnikMain(argc, argv);
}
