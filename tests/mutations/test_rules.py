"""Which changes the rules make of a text."""

import pytest

from mutations.rules import changes_of


def becomes(name, text):
    """Returns what the rules make of the text of a file of this name, a text for each change."""
    return [change.made_in(text) for change in changes_of(name, text)]


@pytest.mark.parametrize("text, changed", [
    pytest.param("f();\ng();\n", "g();\n", id="a statement goes"),
    pytest.param("f(1,\n  2);\ng();\n", "g();\n", id="a statement of two lines goes"),
    pytest.param("if (a && b) {\n}\n", "if (a || b) {\n}\n", id="and becomes or"),
    pytest.param("if (ready) {\n", "if (!(ready)) {\n", id="a condition is negated"),
    pytest.param("while (ready) {\n", "while (!(ready)) {\n", id="the condition of a loop too"),
    pytest.param("if (!ready) {\n", "if (ready) {\n", id="a negation goes"),
    pytest.param("a = b ? c : d;\n", "a = b == false ? c : d;\n", id="a choice is turned"),
    pytest.param('say("text");\n', 'say("textx");\n', id="a text becomes longer"),
    pytest.param("int a = 1;\n", "int a = 2;\n", id="a number moves by one"),
    pytest.param("int a = 1000;\n", "int a = 2000;\n", id="a large number doubles"),
    pytest.param("int a = 100'000;\n", "int a = 200000;\n", id="so does one in parts"),
    pytest.param("return 1;\n", "return 0;\n", id="a failure becomes a success"),
    pytest.param("return 2;\n", "return 3;\n", id="another status moves by one"),
    pytest.param("int a[] = {\n  f(1),\n  2};\n", "int a[] = {\n  2};\n",
                 id="a line of a list goes")])
def test_cpp_becomes(text, changed):
    assert changed in becomes("a.cpp", text)


@pytest.mark.parametrize("text, changed", [
    pytest.param("f({\n  a: b,\n  body});\n", "f({\n  body});\n", id="a line of an object goes"),
    pytest.param("a === 'text';\n", "a === 'textx';\n", id="a text becomes longer")])
def test_javascript_becomes(text, changed):
    assert changed in becomes("a.js", text)


@pytest.mark.parametrize("text, changed", [
    pytest.param("f a\n", ":\n", id="a command goes"),
    pytest.param('f "a\nb"\ng\n', ":\ng\n", id="a command with a text of two lines goes"),
    pytest.param("if a; then\n", "if ! a; then\n", id="a condition is negated"),
    pytest.param("while a; do\n", "while ! a; do\n", id="the condition of a loop too"),
    pytest.param("if ! a; then\n", "if a; then\n", id="a negation goes"),
    pytest.param("  [ -e a ] || f\n", "  ! [ -e a ] || f\n", id="a test is negated"),
    pytest.param('[[ -w a && -e "$b" ]]\n', '[[ -w a && ! -e "$b" ]]\n',
                 id="a question within a test is negated"),
    pytest.param('f "$@"\n', "f $*\n", id="arguments fall to pieces"),
    pytest.param('f "${a[@]}"\n', 'f "${a[*]}"\n', id="the words of a list become one"),
    pytest.param("LC_ALL=C f\n", "f\n", id="a variable of a command goes"),
    pytest.param("p=(git make\ntidy)\n", "p=(git\ntidy)\n", id="a word of a list goes"),
    pytest.param("p=(git make\ntidy)\n", "p=(git make\n)\n", id="the last word of a list goes"),
    pytest.param("install_missing git \\\n    make\nf\n", "install_missing git \\\n    \nf\n",
                 id="a package goes from a call"),
    pytest.param("for a in b c; do\n", "for a in c; do\n", id="a turn of a loop goes")])
def test_shell_becomes(text, changed):
    assert changed in becomes("a.sh", text)


@pytest.mark.parametrize("text, changed", [
    pytest.param("f(a,\n  b)\nc()\n", "pass\nc()\n", id="a statement of two lines goes"),
    pytest.param("if a:\n", "if not (a):\n", id="a condition is negated"),
    pytest.param("while a:\n", "while not (a):\n", id="the condition of a loop too"),
    pytest.param("if not a:\n", "if a:\n", id="a negation goes"),
    pytest.param("if a and b:\n", "if a or b:\n", id="and becomes or"),
    pytest.param("if a or b:\n", "if a and b:\n", id="or becomes and"),
    pytest.param("a = [\n    f(b),\n    c]\n", "a = [\n    c]\n", id="a line of a list goes"),
    pytest.param('f("127.0.0.1")\n', 'f("0.0.0.0")\n', id="an address is opened"),
    pytest.param('"""Says\nit."""\nif 1:\n', '"""Says\nit."""\nif 2:\n',
                 id="what is below a docstring of two lines")])
def test_python_becomes(text, changed):
    assert changed in becomes("a.py", text)


@pytest.mark.parametrize("text, changed", [
    pytest.param("f(a)\ng(b)\n", "g(b)\n", id="a call goes"),
    pytest.param("f(a\n    B c\n    D e)\n", "f(a\n    D e)\n", id="a line of a call goes"),
    pytest.param("f(a\n    D ${e})\n", "f(a\n    )\n", id="its last line goes without its bracket"),
    pytest.param("target_compile_options(t PRIVATE -a -b)\n",
                 "target_compile_options(t PRIVATE -b)\n", id="a compiler's option goes"),
    pytest.param("set(sizes 16 32)\n", "set(sizes 16)\n", id="a value of a list goes"),
    pytest.param("list(APPEND a b c)\n", "list(APPEND a c)\n", id="a value that is added goes"),
    pytest.param("foreach(a IN ITEMS b c)\n", "foreach(a IN ITEMS c)\n", id="a turn goes"),
    pytest.param("if(A)\n", "if(NOT A)\n", id="a condition is negated"),
    pytest.param("if(NOT A)\n", "if(A)\n", id="a negation goes"),
    pytest.param("if(A AND B)\n", "if(A OR B)\n", id="and becomes or"),
    pytest.param("if(A OR B)\n", "if(A AND B)\n", id="or becomes and"),
    pytest.param("f(A ON)\n", "f(A OFF)\n", id="what is on goes off"),
    pytest.param("f(A OFF)\n", "f(A ON)\n", id="what is off goes on")])
def test_cmake_becomes(text, changed):
    assert changed in becomes("CMakeLists.txt", text)


@pytest.mark.parametrize("text, changed", [
    pytest.param("add_header a b;\nroot c;\n", "root c;\n", id="a header goes"),
    pytest.param("f 'a\n  b';\nroot c;\n", "root c;\n", id="a directive of two lines goes"),
    pytest.param("listen 127.0.0.1:80;\n", "listen 0.0.0.0:80;\n", id="an address is opened")])
def test_configuration_of_nginx_becomes(text, changed):
    assert changed in becomes("a.conf", text)


@pytest.mark.parametrize("name, text, changed", [
    pytest.param("a.ui", "<item>\n<property name='a'>\n<b/>\n</property>\n</item>\n",
                 "<item>\n</item>\n", id="form: a property goes"),
    pytest.param("a.ui", '<widget class="A" name="b">\n', '<widget class="A" name="bx">\n',
                 id="form: a name becomes longer"),
    pytest.param("a.ui", "<string>text</string>\n", "<string>textx</string>\n",
                 id="form: a text becomes longer"),
    pytest.param("a.plist.in", "<key>a</key>\n<true/>\n<key>b</key>\n<false/>\n",
                 "<key>b</key>\n<false/>\n", id="property list: a key goes with its value"),
    pytest.param("a.html", "<p>\n<b>text</b>\n</p>\n", "<p>\n</p>\n", id="page: an element goes"),
    pytest.param("a.html", "<b>text</b>\n", "<b>textx</b>\n", id="page: a text becomes longer"),
    pytest.param("a.desktop.in", "A=b\nC=d\n", "C=d\n", id="menu entry: a line goes"),
    pytest.param("a.desktop.in", "A=b\n", "A=bx\n", id="menu entry: a value becomes longer"),
    pytest.param("a.json", '"a": "b",\n"c": "ON"\n', '"c": "ON"\n', id="presets: a line goes"),
    pytest.param("a.json", '"c": "ON"\n', '"c": "OFF"\n', id="presets: what is on goes off"),
    pytest.param("a.json", '"c": "OFF"\n', '"c": "ON"\n', id="presets: what is off goes on"),
    pytest.param("a.in", "#!/bin/sh\nset -e\n", "#!/bin/sh\n:\n",
                 id="a script without a suffix is known by its first line"),
    pytest.param("a", "#!/usr/bin/python3\nf()\n", "#!/usr/bin/python3\npass\n",
                 id="so is one of Python")])
def test_other_file_becomes(name, text, changed):
    assert changed in becomes(name, text)


@pytest.mark.parametrize("name, text", [
    pytest.param("a.cpp", "// f(1 + 2);\n", id="C++: a comment"),
    pytest.param("a.cpp", "const A b;\n", id="C++: a declaration"),
    pytest.param("a.cpp", "Q_OBJECT\nconst A b;\n", id="C++: a macro and what is below it"),
    pytest.param("a.cpp", "return a;\n", id="C++: a result"),
    pytest.param("a.cpp", "int8_t a4 = b1;\n", id="C++: a number in a name"),
    pytest.param("a.cpp", "#ifdef __APPLE__\nf(1);\n#endif\n", id="C++: what only macOS runs"),
    pytest.param("a.sh", "fi # when 1 is 2\n", id="shell: a comment"),
    pytest.param("a.sh", "local a b\n", id="shell: a declaration"),
    pytest.param("a.sh", "f() {\n}\n", id="shell: a function's frame"),
    pytest.param("a.sh", "case x in\na)\n;;\nb) return ;;\nesac\n", id="shell: a choice's frame"),
    pytest.param("a.py", "import a\nfrom b import c\n", id="Python: an import"),
    pytest.param("a.py", '"""Says "1 and 2"\nif a:\n"""\n', id="Python: a docstring"),
    pytest.param("a.cmake", "if(APPLE)\n  f(1)\nendif()\n", id="CMake: what only macOS runs"),
    pytest.param("a.json", '"a": {\n"b": "c"\n}\n', id="presets: what no line may lack"),
    pytest.param("a.json", '"displayName": "1",\n', id="presets: a text for people"),
    pytest.param("a.txt", "f(1);\n", id="a file in no language")])
def test_nothing_is_changed(name, text):
    assert becomes(name, text) == []


@pytest.mark.parametrize("name, text, changed", [
    pytest.param("a.cpp", "f(a,\n  b,\n  c);\n", [""], id="C++: the arguments of a call stay"),
    pytest.param("a.sh", "p=(git)\n", [":\n"], id="shell: the only word of a list stays"),
    pytest.param("a.cmake", "f(\n    a\n)\n", ["", "f(\n)\n"], id="CMake: a bracket alone stays")])
def test_nothing_else_is_changed(name, text, changed):
    assert becomes(name, text) == changed


def test_one_of_equal_lines_is_named_by_its_place():
    changes = changes_of("a.cpp", "f();\ng();\nf();\n")
    assert [(change.before, change.place, change.places) for change in changes] == [
        (("f();",), 1, 2), (("g();",), 1, 1), (("f();",), 2, 2)]
