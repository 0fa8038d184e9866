"""The table at the end of `make prove` has a line for each test, with the figures that the test printed."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

import prove_table

REPORT = """<?xml version="1.0" encoding="UTF-8"?>
<testsuite name="(empty)" tests="4">
  <testcase name="damage.long" classname="damage.long" time="61.7" status="run">
    <system-out>size trials
small 17
17 trials: 0 crashes, 1 &lt; 2
</system-out>
  </testcase>
  <testcase name="race" classname="race" time="30.2" status="run">
    <system-out>[ RUN      ] A.B
500 opened, 7 refused
[       OK ] A.B (678 ms)

[  PASSED  ] 1 test.
</system-out>
  </testcase>
  <testcase name="kill.long" classname="kill.long" time="0.4" status="fail">
    <failure message="Failed"/>
    <system-out>3 kills: 1 promise broken
----------------------------------------------------------------------
Ran 2 tests in 0.384s

FAILED (failures=1)
</system-out>
  </testcase>
  <testcase name="as-root" classname="as-root" time="0" status="notrun"><system-out></system-out></testcase>
</testsuite>
"""

TABLE = """\
test         result   seconds  totals
damage.long  passed        62  17 trials: 0 crashes, 1 < 2
race         passed        30  500 opened, 7 refused
kill.long    FAILED         0  3 kills: 1 promise broken
as-root      skipped        0
"""


class ProveTable(unittest.TestCase):
    maxDiff = None

    def test_shows_result_time_and_totals_of_each_test(self):
        self.assertEqual(prove_table.table([*prove_table.rows(REPORT)]), TABLE)

    def test_of_no_tests_is_a_heading(self):
        self.assertEqual(prove_table.table([*prove_table.rows("<testsuite/>")]), "test  result  seconds  totals\n")

    def test_holds_all_runs_and_names_one_that_has_left_nothing(self):
        with tempfile.TemporaryDirectory() as folder:
            run = pathlib.Path(folder) / "run.xml"
            run.write_text(REPORT, encoding="utf-8")
            missing = pathlib.Path(folder) / "fuzz.xml"
            done = subprocess.run([sys.executable, prove_table.__file__, run, missing], capture_output=True, text=True,
                                  check=False)
            self.assertEqual(done.stdout, TABLE + f"fuzz         FAILED         0  {missing} was not written\n")
            self.assertEqual(done.returncode, 1)
            done = subprocess.run([sys.executable, prove_table.__file__, run, run], capture_output=True, text=True,
                                  check=False)
            self.assertEqual(done.stdout, TABLE + TABLE.split("\n", 1)[1])
            self.assertEqual(done.returncode, 0)


if __name__ == "__main__":
    unittest.main()
