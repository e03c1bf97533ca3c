#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/<target>/: a few valid inputs of
each reader and the awkward cases near them. Run again after changing the seeds; libFuzzer reads
the folders as they are."""
import hashlib
import os

HERE = os.path.dirname(os.path.abspath(__file__))
SEP = b"\xff"  # FuzzSupport's TInput::Piece separator


def u16(s):
    return s.encode("utf-16-le")


SEEDS = {
    "fuzz_uuid": [
        b"6ba7b810-9dad-11d1-80b4-00c04fd430c8", b"{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}",
        b"{6BA7B810-9DAD-11D1-80B4-00C04FD430C8", b"6ba7b8109dad11d180b400c04fd430c8",
        b"a6e4EJ2tEdGAtADAT9QwyA==", b"0a\\1b\\6ba7b8109dad11d180b400c04fd430c8", b"",
        u16("6ba7b810-9dad-11d1-80b4-00c04fd430c8"), u16("ABCDEFGH"), u16("0123456789abcdef"),
    ],
    "fuzz_netencoding": [
        b"\x00MZXW6YTBOI======", b"\x00foobar", b"\x01Zm9vYmFy", b"\x01\x00\x01\x02\xfe",
        b"\x02a%20b%2Fc", b"\x02%zz", b"\x03a=b&c", "\x03h\u00e9llo w\u00f6rld".encode(),
    ],
    "fuzz_hex": [b"\x01\x02\x01\x02\x03\x04\x05", b"\x00\x00AB0", b"\x00\x000A 0b\r\n0C", b"\x03\x04ABC",
                 b"\x00\x000G"],
    "fuzz_dates": [
        b"\x00Sun, 06 Nov 1994 08:49:37 GMT", b"\x011994-11-06T08:49:37Z", b"\x011994-11-06", b"\x0108:49:37",
        b"\x0206 Nov 94 08:49:37 GMT", b"\x02Sun, 06 Nov 94 08:49:37 +0100", b"\x0306 Nov 1994 08:49:37 +0100",
        b"\x04Sun, 06 Nov 1994 08:49:37 GMT\n", b"\x80" + u16("Sun, 06 Nov 1994 08:49:37 GMT"),
    ],
    "fuzz_numbers": [b"42" + SEP + b"7", b"-2147483648" + SEP + b"3", b"$7FFFFFFF" + SEP + b"0",
                     b"0x1F" + SEP + b"-0.5", b"- " + SEP + b"1e4296611111111111111111",
                     b"123.456" + SEP + b"0.001", b"0.4595" + SEP + b"9.95", b"1E400" + SEP + b"-1e-400"],
    "fuzz_utf": ["h\u00e9llo".encode() + SEP + "h\u00e8llo".encode(), b"\xc3" + SEP + b"a",
                 "\U0001F600".encode() + SEP + u16("\U0001F600"), b"\xed\xa0\x80" + SEP + b"\x00\xd8"],
    "fuzz_encodings": [bytes([i]) + s for i in range(6) for s in (
        b"\xef\xbb\xbfabc", b"\xff\xfea\x00", b"\xfe\xff\x00a", b"+AGEAYgBj-", b"+2D0-", b"\x00\xd8a\x00",
        "\u00e9t\u00e9".encode(), b"\x80\x81")],
    "fuzz_format": [b"%d %s %x" + SEP + b"\x00\x00\x00\x00\x00\x00\x00\x00\x2a\x02abc" + SEP + b"\x04\x07",
                    b"%*d" + SEP + b"\x04\x05\x00\x00\x00\x00\x00\x00\x00\x00\x2a",
                    b"%4.2f|%.0f|%e|%g" + SEP + b"\x01?\xc0\x00\x00\x00\x00\x00\x00",
                    b"%1:s %0:s %%" + SEP + b"\x02a" + SEP + b"\x02b",
                    b"%-10.3s|%c|%p|%n" + SEP + b"\x02abcdef"],
    "fuzz_tokeniser": [b"\x00a \"b c\" d", b"\x3f,;" + SEP + b"''" + SEP + b"\\" + SEP + b"a,'b;c',d\\,e",
                       b"\x20name=x key=\"v w\"", b"\x04\\" + SEP + b"a\\ b \"c\\\"d\""],
    "fuzz_string_parser": [b"\x01," + SEP + b"()" + SEP + b"f(x, y)", b"\x1c" + SEP + b"\\" + SEP + b"\"\"" + SEP + b"a \"b\\\" c\" d",
                           b"\x07;" + SEP + b" \t" + SEP + b"^" + SEP + b"[]{}" + SEP + b"[a{b;c}]^] x"],
    "fuzz_stream_parser": [b"<a> hi <b>x</b></a>\n", b"<!-- c - d --><a></a>", b"\xef\xbb\xbf<a>\xc3\xa9</a>",
                           "\ufeff<a>x</a>\n".encode("utf-16-le"), b"<a>\\<b</a>", b"<a><b></a>", b"text"],
    "fuzz_property_reader": [b"Count = 3\nCaption = 'hello'\nFlag = True\nInner.Scale = 2.5\nExtra = 7\n",
                             b"Caption = 'it''s'\n", b"Count = x\n", b"Inner.Scale = 1e999\n", b"Nope = 1\n"],
}


def main():
    for target, seeds in SEEDS.items():
        folder = os.path.join(HERE, "corpus", target)
        os.makedirs(folder, exist_ok=True)
        for seed in seeds:
            name = hashlib.sha1(seed).hexdigest()
            with open(os.path.join(folder, name), "wb") as f:
                f.write(seed)


if __name__ == "__main__":
    main()
