"""The codecs are private classes a test host can make and drive by name."""
import hashlib


def test_qobase64_encodes_and_decodes_by_name(quillo):
    codec = quillo.testing.CreatePrivateObject("qoBase64")
    codec.InputValue = "abc"
    codec.Encode()
    assert codec.OutputValue == "YWJj"
    codec.InputValue = "YWJjZA=="
    codec.Decode()
    assert codec.OutputValue == "abcd"
    assert codec.EncodeStr64("hello") == "aGVsbG8="
    assert codec.DecodeStr64("aGVs\r\nbG8=") == "hello"


def test_qomd5_digests_text_and_files_by_name(quillo, tmp_path):
    md5 = quillo.testing.CreatePrivateObject("qoMD5")
    md5.InputValue = "abc"
    md5.Hash()
    assert md5.OutputValue == hashlib.md5(b"abc").hexdigest().upper()
    assert md5.DigestStrToHexStr("") == "D41D8CD98F00B204E9800998ECF8427E"
    small = tmp_path / "small.bin"
    small.write_bytes(b"0123456789")
    assert md5.DigestFileToHexStr(str(small)) == hashlib.md5(b"0123456789").hexdigest().upper()
    md5.MD5Init()
    md5.MD5Update(3, "abc")
    md5.MD5Final()
    assert md5.GetValues() == hashlib.md5(b"abc").hexdigest().upper()
    assert md5.LongLeftRotate(1, 31) == -2147483648
    assert md5.RegisterA != ""


def test_the_codecs_are_not_creatable_by_hosts(quillo, raises_error):
    for name in ("qoBase64", "qoMD5"):
        with raises_error(429):
            quillo.CreateObject(name)
