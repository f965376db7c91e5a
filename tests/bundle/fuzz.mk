# The answer to a body alone, under libFuzzer and both sanitizers. Run from the project's directory.

build/fuzz/calls: tests/bundle/fuzz.mk tests/bundle/FuzzCalls.cpp $(wildcard bundle/rpcServer/*)
	clang++ -std=c++17 -O1 -g -I. \
	    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
	    -o $@ tests/bundle/FuzzCalls.cpp bundle/rpcServer/Calls.cpp
