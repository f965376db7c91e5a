"""Changes the sources one small step at a time and prints the changes that no test notices.

    languages   what the rules must know of a language
    rules       the changes that the rules make in a file
    changes     one change: where it is, how it is made, how it is written down
    table       reads entries/, which adds changes by hand and says why some go unnoticed
    covered     which tests must notice a change of which file
    judging     makes a change in a copy of the tree and runs the tests that cover it
    __main__    the command, typed as scripts/mutate

docs/testing.md says how an entry is written.
"""
