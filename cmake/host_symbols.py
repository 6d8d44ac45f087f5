"""Compares the symbols that a plug-in takes from the host with tests/data/host-symbols.txt."""

import os
import re
import subprocess

LIST = os.path.join(os.path.dirname(__file__), "../tests/data/host-symbols.txt")


def host_symbols(uint64):
    """The symbols of the list; `uint64` is what uint64_t stands for on the system in question."""
    with open(LIST) as file:
        lines = {line.strip() for line in file if line.strip() and not line.startswith("#")}
    return {line.replace("uint64_t", uint64).replace("size_t", "unsigned long") for line in lines}


def demangle(names):
    """The mangled names as the list writes them."""
    text = subprocess.run(["c++filt"], input="\n".join(names), stdout=subprocess.PIPE, text=True,
                          check=True).stdout
    text = re.sub(r"std::(__1|__cxx11)::", "std::", text.replace("[abi:cxx11]", ""))
    text = re.sub(r"std::basic_string<char, std::char_traits<char>, std::allocator<char> ?>",
                  "std::string", text)
    return re.sub(r"std::list<([\w:]+), std::allocator<\1> ?>", r"std::list<\1>", text).splitlines()
