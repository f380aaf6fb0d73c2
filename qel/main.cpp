// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_main.h"

int main(int argc, char** argv) {
  return qel_main(argc, argv);
}
