// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_main.h"
#include "qel/qel_os.h"

int main(int argc, char** argv) {
  qel_os_open_standard_streams();
  return qel_main(argc, argv);
}
