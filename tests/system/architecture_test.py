"""docs/architecture.md: what it names is there, and its picture is the one of its source."""

import os
import re
import subprocess
import unittest
import xml.etree.ElementTree as xml

from cli_support import CliTest, SOURCE_DIR, read_file


def document(name):
    return read_file(os.path.join(SOURCE_DIR, "docs", name))


def sources():
    """All that the plug-in and the tests' support consist of, as one text."""
    text = ""
    for folder in ("src", os.path.join("tests", "support"), os.path.join("host", "include", "standin")):
        for name in sorted(os.listdir(os.path.join(SOURCE_DIR, folder))):
            text += name + "\n" + read_file(os.path.join(SOURCE_DIR, folder, name))
    return text


class ArchitectureTest(CliTest):
    def test_every_name_in_code_is_in_the_sources(self):
        text = sources()
        names = re.findall(r"`([^`\n]+)`", document("architecture.md"))
        self.assertGreater(len(names), 40)
        for name in names:
            if "/" in name:
                self.assertTrue(os.path.exists(os.path.join(SOURCE_DIR, name)), name)
                continue
            for word in re.findall(r"[A-Za-z_]\w+", name):
                self.assertTrue(re.search(r"\b%s\b" % word, text), name)

    def test_locks_of_the_document_are_those_of_the_sources(self):
        """A new lock has to find its place in the order."""
        declared = re.findall(r"^ *(?:std::mutex|pthread_mutex_t) (\w+);", sources_of_the_plugin(), re.M)
        rows = re.findall(r"^\| `(?:\w+::|status_source\.)?(\w+)` \| ", lock_table(), re.M)
        self.assertEqual(sorted(rows), sorted(declared))

    def test_no_host_or_system_is_asked_for_in_the_sources(self):
        self.assertEqual(re.findall(r"^ *#.*\b(?:__APPLE__|__linux__|BRO_\w+)\b.*",
                                    sources_of_the_plugin(), re.M), [])

    def test_picture_shows_all_that_its_source_has(self):
        shown = "\n".join(text.strip() for text in xml.fromstring(document("architecture.svg")).itertext())
        labels = re.findall(r'label="([^"]*)"', document("architecture.dot"))
        self.assertGreater(len(labels), 20)
        for label in labels:
            for line in label.split("\\n"):
                self.assertIn(line.strip(), shown)


def sources_of_the_plugin():
    folder = os.path.join(SOURCE_DIR, "src")
    return "".join(read_file(os.path.join(folder, name)) for name in sorted(os.listdir(folder))
                   if name.endswith((".h", ".cc")))


def lock_table():
    return re.search(r"^\| Lock \|.*?\n\n", document("architecture.md"), re.M | re.S).group()


if __name__ == "__main__":
    unittest.main()
