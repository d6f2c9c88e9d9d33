import re

from harness import BIN, DOCS, Case, run

# Calls the function that `complete` registered, as bash does with the words of a line. Outside of a
# completion compopt fails.
COMPLETE = """
. /usr/share/bash-completion/bash_completion && . "$1" && shift || exit
compopt() { [[ $* != *nospace* ]] || space=no; }
COMP_LINE=$1 COMP_POINT=${#1} && shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
[[ $(complete -p "$1") =~ -F\\ ([^ ]+) ]] && "${BASH_REMATCH[1]}" || exit
echo "${space-yes}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


class CompletionTest(Case):
    def complete(self, line):
        """The candidates, and whether bash adds a space."""
        words = re.findall(r"[=:]|[^\s=:]+|(?<=\s)\Z", line)  # as COMP_WORDBREAKS has it
        script = DOCS.parent / "packaging/completion" / words[0]
        result = run("bash", "--norc", "-c", COMPLETE, "bash", script, line, *words,
                     cwd=self.folder)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        space, *candidates = result.stdout.split()
        return sorted(candidates), space == "yes"

    def test_options_are_those_of_the_programs(self):
        for program in ("ktclientd", "ktclientctl"):
            usage = run(BIN / program, "--help", check=True).stdout.partition("\n")[2]
            options = set(re.findall(r"(?m)^  (--[\w-]+=?)", usage))
            options -= {option.removesuffix("=") for option in options if option[-1] == "="}
            self.assertEqual(self.complete(f"{program} --")[0], sorted(options))

    def test_values_and_commands(self):
        (self.folder / "kt.sock").touch()
        (self.folder / "kt.d").mkdir()
        for line, candidates, space in (
                ("ktclientctl --so", ["--socket="], False),
                ("ktclientctl --trace-c", ["--trace-console"], True),
                ("ktclientctl --socket=kt.", ["kt.d", "kt.sock"], True),
                ("ktclientctl --trace-level=", list("012345"), True),
                ("ktclientctl --compact --socket=kt.sock i", ["igel"], True),
                ("ktclientctl doctor --j", ["--json"], True),
                ("ktclientctl report --output=kt.s", ["kt.sock"], True),
                ("ktclientd --so", ["--socket="], False),
                ("ktclientd --trace-c", ["--trace-console"], True),
                ("ktclientd --activated --trace-file=kt.s", ["kt.sock"], True),
                ("ktclientd --trace-folder=k", ["kt.d"], True),
                ("ktclientd --trace-level=", list("012345"), True),
                ("ktclientd --trace-file-prefix=t", ["true"], True)):
            with self.subTest(line=line):
                self.assertEqual(self.complete(line), (candidates, space))
        for line, words in (("ktclientctl ", ["doctor", "hardware", "igel", "native-host", "report",
                                              "send"]),
                            ("ktclientctl send ", ["-"]), ("ktclientctl hardware ", [])):
            candidates, _ = self.complete(line)
            self.assertEqual([word for word in candidates if word[:2] != "--"], words)
