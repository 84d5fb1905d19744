"""The examples of docs/tmf-python.md, one after the other: each prints what stands behind it."""

import contextlib
import io
import os
import re
import tempfile
import unittest

PAGE = os.path.join(os.environ["KESTRO_SOURCE_DIR"], "docs", "tmf-python.md")


class Page(unittest.TestCase):
    def test_each_example_prints_what_the_page_says(self):
        with open(PAGE) as page:
            examples = re.findall(r"```python\n(.*?)```\n\n((?:    [^\n]*\n)+)", page.read(), re.S)
        self.assertEqual(len(examples), 5)
        names = {}
        self.addCleanup(os.chdir, os.getcwd())
        with tempfile.TemporaryDirectory() as folder:
            os.chdir(folder)
            for program, expected in examples:
                printed = io.StringIO()
                with self.subTest(program), contextlib.redirect_stdout(printed):
                    exec(program, names)
                self.assertEqual(printed.getvalue(), re.sub("^    ", "", expected, flags=re.M))
            os.chdir("/")


if __name__ == "__main__":
    unittest.main()
