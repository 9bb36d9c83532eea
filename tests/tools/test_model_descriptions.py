#!/usr/bin/env python3
"""The generators' refusals: each malformed model description (or set of
descriptions) is refused with the one message that names its fault and
line, and nothing is written.  tools/ymapgen.py reads one model,
tools/model_tables.py all of them together."""

import os
import subprocess
import sys
import tempfile
import unittest

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools")
sys.path.insert(0, TOOLS)
import model_tables  # noqa: E402
import ymapgen  # noqa: E402

NATIVE = "native n\nnamespace NS\n"  # lines 1 and 2; a case's text starts at line 3
OPENCONFIG = "openconfig o\nnamespace NS\n"

# (description, message) of ymapgen.parse
PARSE = [
    # the header
    ("namespace NS\ncontainer c\n", "line 2: the description starts with native or openconfig"),
    ("native\n", "line 1: 'native' takes STEM"),
    ("native n\nnamespace\n", "line 2: 'namespace' takes CONST"),
    (NATIVE + "define A\n", "line 3: 'define' takes NAME VALUE"),
    (NATIVE + "operational yes\n", "line 3: 'operational' takes nothing more"),
    ("native n\ncontainer c\n", "the description needs its kind and stem, and 'namespace CONST'"),
    (NATIVE + "entry e accepts\n", "line 3: expected 'entry NAME accepts TAG [walker NAME]'"),
    (NATIVE + "entry augment_x accepts c\n", "line 3: no single top node 'c' for the entry"),
    (NATIVE + "copy\n", "line 3: 'copy' takes the names of top walkers"),
    (OPENCONFIG + "container c lvla_c\ncopy lvla_c\n  colour red\n",
     "line 5: a copy takes 'augments PATH' and 'define NAME VALUE'"),
    (OPENCONFIG + "container c lvla_c\ncopy lvla_d\n", "line 4: no top walker 'lvla_d' to copy"),
    (OPENCONFIG + "container c lvld_c\ncopy lvld_c\n",
     "line 3: no level letter left for a copy of lvld_c"),
    # the tree
    (NATIVE + " container c\n", "line 3: indent by two spaces a level"),
    (NATIVE + "container c\n    container d\n", "line 4: indentation does not follow the tree"),
    (NATIVE + "container c\n  leaf x  plain /a\n    leaf y  plain /b\n",
     "line 5: a leaf has no children"),
    (NATIVE + "container c\ncontainer c\n",
     "line 4: 'ymap_vo_octunnel_n_lvla_c' is also the name of line 3"),
    # native rows
    (NATIVE + "widget c\n", "line 3: expected container, list or leaf"),
    (NATIVE + "registered container c\n", "line 3: only a root is registered"),
    (NATIVE + "container c\n  root container d\n", "line 4: only a top node can be root or inline"),
    (NATIVE + "inline container c\n", "line 3: an inline node needs an entry"),
    (NATIVE + "container c @lvlz\n", "line 3: unknown level 'lvlz'"),
    (NATIVE + "container c  cont\n", "line 3: options come in pairs"),
    (NATIVE + "container c  cont /a  cont /b\n", "line 3: 'cont' given twice"),
    (NATIVE + "container c  colour red\n", "line 3: unknown option 'colour'"),
    (NATIVE + "container c  cont relative\n",
     "line 3: 'relative' is neither an absolute path nor a defined one"),
    (NATIVE + "container c  keys k\n", "line 3: container takes no keys"),
    (NATIVE + "list l\n", "line 3: a list needs its path"),
    (NATIVE + "container c\n  leaf x\n", "line 4: a leaf is plain, delegate, config or overridden"),
    (NATIVE + "container c\n  leaf x  plain /a  always /b\n",
     "line 4: always and state go with config"),
    (NATIVE + "list l  keys k  path /l  fixed k\n", "line 3: expected 'fixed KEY=VALUE'"),
    (NATIVE + "list l  keys k  path /l  fixed k=v\n", "line 3: a fixed key goes with instance-of"),
    (NATIVE + "list l  keys k  path /l  instance-of /x[a=k]  fixed j=v\n",
     "line 3: 'j' is not a key of the list"),
    (NATIVE + "container c  instance-of /x\n",
     "line 3: expected 'instance-of LIST[KEY=CHILD]' or 'instance-of LIST[KEY=PREFIX+CHILD]'"),
    (NATIVE + "container c  override everything\n",
     "line 3: override takes handler and parse_augments, not 'everything'"),
    (NATIVE + "container c  override handler,handler\n", "line 3: 'handler,handler' names a role twice"),
    (NATIVE + "container c  cont /a  override handler\n",
     "line 3: an overridden handler is not also generated (cont)"),
    (NATIVE + "container c\n  leaf x  plain /a  override parse_augments\n",
     "line 4: a leaf has no parse_augments"),
    # OpenConfig rows
    (OPENCONFIG + "widget c lvla_c\n",
     "line 3: expected FORM TAG NAME, FORM one of container, state, list, leaf, key, leaf-list"),
    (OPENCONFIG + "container c walker_c\n", "line 3: 'walker_c' is not a walker name (lvlX_...)"),
    (OPENCONFIG + "container c lvla_c  colour\n", "line 3: unknown option 'colour'"),
    (OPENCONFIG + "container c lvla_c  cont /a NS  cont /b NS\n", "line 3: 'cont' given twice"),
    (OPENCONFIG + "container c lvla_c  cont /a\n", "line 3: 'cont' takes 2 values"),
    (OPENCONFIG + "container c lvla_c  path /c\n", "line 3: container takes no path"),
    (OPENCONFIG + "leaf x lvla_x\n", "line 3: a top node is a container or list"),
    (OPENCONFIG + "container c lvla_c\n  leaf x lvla_x  config /a NS  delegate f\n",
     "line 4: a leaf has one handler"),
    (OPENCONFIG + "list l lvla_l\n  key k lvla_k\n", "line 3: a list needs its path and leafref"),
    (OPENCONFIG + "list l lvla_l  path /l  leafref /l\n  leaf k lvla_k\n",
     "line 3: a list's first child is its key"),
    (OPENCONFIG + "list l lvla_l  path /l  leafref /l\n  key k lvla_k\n  key j lvla_j\n",
     "line 3: a list has one key"),
    (OPENCONFIG + "container c lvla_c\n  key k lvla_k\n", "line 4: a key leaf stands in a list"),
    (OPENCONFIG + "hooks-only\ncontainer c lvla_c  override handler\n",
     "line 4: a hooks-only model has no handlers to override"),
]

OC_LIST = ("openconfig o\nnamespace NS_O\n"
           "container i lvla_i\n  list l lvla_l  path /i/l  leafref /i/l\n    key k lvla_k\n")

# (descriptions, message) of model_tables, all the models together
TABLES = [
    ([NATIVE + "container c\n", "native m\nnamespace NS_M\ncontainer c\n"],
     "m line 3: /c is also a container of NS"),
    ([OC_LIST, NATIVE + "list e  path /e  instance-of /i/x[k=a]\n"],
     "n line 3: no OpenConfig list /i/x"),
    ([OC_LIST, NATIVE + "list e  path /e  instance-of /i/l[j=a]\n"],
     "n line 3: the key of /i/l is k, not j"),
    ([NATIVE + "registered root container c\n", "native m\nnamespace NS\nregistered root container d\n"],
     "more than one registered root"),
]


def parse_error(text):
    try:
        ymapgen.parse(text)
    except ymapgen.ModelError as e:
        return str(e)
    return None


class Refusals(unittest.TestCase):
    def test_each_malformed_description_is_refused_with_its_message(self):
        for text, message in PARSE:
            with self.subTest(text=text):
                self.assertEqual(parse_error(text), message)

    def test_each_conflict_between_models_is_refused_with_its_message(self):
        for texts, message in TABLES:
            with self.subTest(texts=texts):
                with self.assertRaises(model_tables.TableError) as caught:
                    model_tables.generate([ymapgen.parse(t) for t in texts])
                self.assertEqual(str(caught.exception), message)

    def test_the_command_names_the_file_and_writes_nothing(self):
        with tempfile.TemporaryDirectory() as d:
            cases = [("n.ymap", NATIVE + "list l\n", "n.ymap: line 3: a list needs its path"),
                     ("x.ymap", NATIVE + "container c\n",
                      "x.ymap: the model 'n' belongs in n.ymap")]
            for name, text, message in cases:
                with self.subTest(name=name):
                    path = os.path.join(d, name)
                    with open(path, "w", encoding="utf-8") as f:
                        f.write(text)
                    out = os.path.join(d, "out")
                    run = subprocess.run([sys.executable, os.path.join(TOOLS, "ymapgen.py"), path,
                                          "--out-dir", out], capture_output=True, text=True)
                    self.assertEqual(run.returncode, 1)
                    self.assertEqual(run.stderr.strip(), os.path.join(d, message))
                    self.assertFalse(os.path.exists(out))

    def test_a_valid_description_passes(self):
        self.assertIsNone(parse_error(NATIVE + "root container c\n  leaf x  plain /a\n"))
        self.assertIsNone(parse_error(OC_LIST))


if __name__ == "__main__":
    unittest.main()
