import re

from harness import BIN, DOCS, Case, run

# Calls what `complete` registered, as bash does with the words of a line. Outside of a completion
# compopt fails.
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
        """The candidates, and whether a space is to follow."""
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
            options = set(re.findall(r"(?<= )--[\w-]+=?", usage))
            options -= {option.removesuffix("=") for option in options if option[-1] == "="}
            self.assertEqual(self.complete(f"{program} --")[0], sorted(options))

    def test_only_an_option_with_a_value_goes_on_without_a_space(self):
        for program in ("ktclientd", "ktclientctl"):
            self.assertEqual(self.complete(f"{program} --so"), (["--socket="], False))
            self.assertEqual(self.complete(f"{program} --trace-c"), (["--trace-console"], True))

    def test_values(self):
        (self.folder / "kt.sock").touch()
        (self.folder / "kt.d").mkdir()
        levels = [str(level) for level in range(6)]
        for line, candidates in {
                "ktclientctl --socket=": ["kt.d", "kt.sock"],
                "ktclientctl --socket=kt.s": ["kt.sock"],
                "ktclientctl --trace-level=": levels,
                "ktclientctl --timeout=": [],
                "ktclientd --socket=kt.": ["kt.d", "kt.sock"],
                "ktclientd --trace-level=": levels,
                "ktclientd --activated --trace-file=kt.s": ["kt.sock"],
                "ktclientd --trace-folder=k": ["kt.d"],
                "ktclientd --trace-file-prefix=t": ["true"],
                "ktclientd --activated-period=": []}.items():
            with self.subTest(line=line):
                self.assertEqual(self.complete(line)[0], candidates)

    def test_commands_of_the_client(self):
        for line, candidates in {
                "ktclientctl ": ["hardware", "igel", "send"],
                "ktclientctl h": ["hardware"],
                "ktclientctl --socket=kt.sock --compact i": ["igel"],
                "ktclientctl send ": ["-"],
                "ktclientctl igel ": []}.items():
            with self.subTest(line=line):
                self.assertEqual([word for word in self.complete(line)[0]
                                  if not word.startswith("--")], candidates)
