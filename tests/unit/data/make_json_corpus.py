#!/usr/bin/python3
"""Writes json_corpus.txt: texts judged by an independent JSON parser,
Python's json module in strict mode, for JsonValueTest to hold
MERO::JsonValue::fromString against without Python.

    /usr/bin/python3 tests/unit/data/make_json_corpus.py > tests/unit/data/json_corpus.txt

A text is JSON when it decodes as strict UTF-8 (no overlong forms, no
encoded surrogates) and json.loads takes it with NaN and Infinity refused.
Comments are our extension, which this judge does not know: no generated
text holds a '/' outside a string (the unit tests cover comments by hand).

Line format: '+' (JSON) or '-' (not JSON), one space, then the text with
a backslash doubled, and control bytes, bytes past 0x7e and a leading or
trailing blank written as \\xHH.
"""
import itertools
import json


def judge(data: bytes) -> bool:
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError:
        return False

    def refuse(name):
        raise ValueError(name)

    try:
        json.loads(text, parse_constant=refuse)
    except (ValueError, RecursionError):
        return False
    return True


def escape(data: bytes) -> str:
    out = []
    for i, byte in enumerate(data):
        edge = i == 0 or i == len(data) - 1
        if byte == 0x5C:
            out.append("\\\\")
        elif byte < 0x20 or byte > 0x7E or (edge and byte == 0x20):
            out.append("\\x%02x" % byte)
        else:
            out.append(chr(byte))
    return "".join(out)


def cases():
    # What the parser was seen to get wrong, and its neighbours.
    yield from [
        b"[1,]", b"[1,2,]", b'{"a":1,}', b"[,]", b"[,1]", b"{,}", b'{"a":1,,"b":2}',
        b"-", b"[-]", b"+1", b"[+1]", b"01", b"[01]", b"-01", b"1.", b"[1.]", b".5",
        b"[.5]", b"2.e3", b"[2.e3]", b"1e", b"1e+", b"1E5", b"1e+5", b"1e-5", b"-0",
        b"-0.0e-0", b"0e0", b"1e400", b"-1e400", b"1e-400", b"[1e400]",
        b"123456789012345678901234567890", b"-9223372036854775809",
        b"18446744073709551616", b"[18446744073709551615,-9223372036854775808]",
        b'"\x00"', b'"\t"', b'"\n"', b'"\r"', b'"\x1f"', b'"\x7f"', b'["a\tb"]',
        b'{"k\n":1}', b'"\\u0000"', b'"\\t"', b"", b" ", b"\t\n\r ", b"[]", b"{}",
        b"[] ", b" []", b"[]]", b"[[]", b"{}}", b'{"a"}', b'{"a":}', b'{"a" 1}',
        b'{1:2}', b"{'a':1}", b"['a']", b"[1 2]", b"[1,,2]", b"[true false]",
        b"tru", b"truex", b"nulll", b"True", b"NaN", b"[NaN]", b"Infinity",
        b"-Infinity", b"[Infinity]", b"\xef\xbb\xbf[]", b"\x0c[]", b"[]\x0b",
        b"\xc2\xa0[]", b'"\xc3\xa9"', b'"\xe2\x82\xac"', b'"\xf0\x9f\x98\x80"',
        b'"\xc3"', b'"\xc0\x80"', b'"\xe0\x80\x80"', b'"\xed\xa0\x80"',
        b'"\xf4\x90\x80\x80"', b'"\xf5\x80\x80\x80"', b'"\xff"', b'"\x80"',
        b'"\\ud800"', b'"\\udc00"', b'"\\ud800\\udc00"', b'"\\ud800\\u0041"',
        b'"\\ud800x"', b'"\\udbff\\udfff"', b'["\\ud800","\\ud83d\\ude00"]',
        b'"\\u12"', b'"\\u12G4"', b'"\\U0041"', b'"\\x41"', b'"\\a"', b'"\\\'"',
        b'"abc', b'"abc\\"', b'["a",]', b'{"a":[}', b'{"a":{"b":1}}', b"1 2",
        b"[1] [2]", b"{}{}", b'"a""b"', b"7x", b"[7x]", b"0x10", b"[0x10]",
        b"1.0.0", b"--1", b"-+1", b"1e1.5", b"[1e1e1]", b"[00]", b"[-0.0]",
    ]
    # Every number-like token of up to three characters, alone and in an
    # array.
    alphabet = "01-+.eE"
    for length in range(1, 4):
        for token in itertools.product(alphabet, repeat=length):
            text = "".join(token).encode()
            yield text
            yield b"[" + text + b"]"
            yield b'{"n":' + text + b"}"
    # Every byte inside a string, and every escape letter.
    for byte in range(256):
        yield b'"a' + bytes([byte]) + b'b"'
    for letter in range(0x20, 0x7F):
        yield b'"\\' + bytes([letter]) + b'"'
    # One change at every place of a few documents: each byte dropped, each
    # structural token or a letter put in before it.
    seeds = [
        b'{"a":[1,-2.5e3,{"b":null}],"c":"d","e":true}',
        b'[false,"x\\n",0,{},[[]],{"k":"v"}]',
        b' {"n" : { "m" : [ 1 , 2 ] } } ',
        b'"s"', b"0", b"[]", b"{}",
    ]
    inserts = [b",", b":", b"[", b"]", b"{", b"}", b'"', b" ", b"0", b"-", b".", b"a", b"\t", b"\x01"]
    for seed in seeds:
        yield seed
        for i in range(len(seed) + 1):
            if i < len(seed):
                yield seed[:i] + seed[i + 1:]
            for token in inserts:
                yield seed[:i] + token + seed[i:]


def main():
    seen = set()
    for text in cases():
        if text in seen:
            continue
        seen.add(text)
        print(("+ " if judge(text) else "- ") + escape(text))


if __name__ == "__main__":
    main()
