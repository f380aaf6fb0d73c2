# SPDX-License-Identifier: Apache-2.0
"""The tests of documents use the lab of the system tests."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))
