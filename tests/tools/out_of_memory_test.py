"""The command when memory runs out: every 11th allocation fails in turn, and all after it."""
import os
import unittest

from command import DONE, OTHER, CommandTest


class OutOfMemory(CommandTest):
    def test_is_reported_wherever_it_happens(self):
        self.tkv("set", "a", "x")
        codes = set()
        for number in range(1, 100_000, 11):
            result = self.run_command("get", "--json", "a", environment={"FAILING_NEW": str(number),
                                                                         "LD_PRELOAD": os.environ["TKV_FAILING_NEW"]})
            codes.add(result.code)
            if result.code == DONE:
                break
            self.assertEqual(result.code, OTHER, number)
            self.assertIn(result.text, ("", '{"name":"a","type":"text","value":"x"}\n'))  # all or nothing
            self.assertIn("out of memory", result.messages)
        self.assertEqual(codes, {OTHER, DONE})


if __name__ == "__main__":
    unittest.main()
