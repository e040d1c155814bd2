"""Builds the demo voice bank; run through scripts/make-demo-bank.

Every sample is checked before the bank is written: its voiced part must
reach the end its entry claims, its level must be full and its tail must
not be silent. The same tools give the same bank, byte for byte: SoX runs
without dither (-D) and with its repeatable random numbers (-R)."""
import os
import shutil
import subprocess
import sys
import tempfile

TONA = os.environ["TONA"]
BANK = os.environ["BANK"]
NOTE = "A3"            # every sample is sung on this pitch
MAX_SECONDS = 0.62     # consonant plus a sustained vowel
FRAME_MS = 256 / 44.1  # one frequency-table frame

SYLLABLES = [
    ("a", "あ"), ("i", "い"), ("u", "う"), ("e", "え"), ("o", "お"),
    ("ka", "か"), ("ki", "き"), ("ku", "く"), ("ke", "け"), ("ko", "こ"),
    ("sa", "さ"), ("shi", "し"), ("su", "す"), ("se", "せ"), ("so", "そ"),
    ("ta", "た"), ("chi", "ち"), ("tsu", "つ"), ("te", "て"), ("to", "と"),
    ("na", "な"), ("ni", "に"), ("nu", "ぬ"), ("ne", "ね"), ("no", "の"),
    ("ha", "は"), ("hi", "ひ"), ("fu", "ふ"), ("he", "へ"), ("ho", "ほ"),
    ("ma", "ま"), ("mi", "み"), ("mu", "む"), ("me", "め"), ("mo", "も"),
    ("ya", "や"), ("yu", "ゆ"), ("yo", "よ"),
    ("ra", "ら"), ("ri", "り"), ("ru", "る"), ("re", "れ"), ("ro", "ろ"),
    ("wa", "わ"), ("n", "ん"),
    ("ga", "が"), ("gi", "ぎ"), ("gu", "ぐ"), ("ge", "げ"), ("go", "ご"),
    ("za", "ざ"), ("ji", "じ"), ("zu", "ず"), ("ze", "ぜ"), ("zo", "ぞ"),
    ("da", "だ"), ("de", "で"), ("do", "ど"),
    ("ba", "ば"), ("bi", "び"), ("bu", "ぶ"), ("be", "べ"), ("bo", "ぼ"),
]


def run(*args):
    subprocess.run(args, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def table(path):
    """(amplitude, frequency) per frame, from a fresh text frequency table."""
    for ext in ("_wav.frq", "_wav.frt"):
        if os.path.exists(path[:-4] + ext):
            os.remove(path[:-4] + ext)
    run(TONA, "analyze", "--text", path)
    rows = []
    with open(path[:-4] + "_wav.frt", encoding="ascii") as text:
        lines = text.read().split("\n")
    for line in lines[lines.index("") + 1:]:
        if line:
            amplitude, frequency = line.split("\t")[:2]
            rows.append((float(amplitude), float(frequency[:-2])))
    os.remove(path[:-4] + "_wav.frt")
    os.remove(path[:-4] + "_wav.frq")
    return rows


def vowel_frame(rows):
    """The first frame of the voiced, loud part."""
    loudest = max(amplitude for amplitude, _ in rows)
    return next(k for k, (amplitude, frequency) in enumerate(rows)
                if frequency > 0 and amplitude >= 0.3 * loudest)


def check(name, rows, end_ms):
    """Why the sample falls short of its entry, or None."""
    loudest = max(amplitude for amplitude, _ in rows)
    if loudest < 2000:
        return "too quiet (peak amplitude %.0f)" % loudest
    # The stretch the entry sings up to its end, less the final fade.
    first = vowel_frame(rows)
    last = min(len(rows), int((end_ms - 60.0) / FRAME_MS))
    for k in range(first, last):
        amplitude, frequency = rows[k]
        if frequency <= 0 or amplitude < 0.1 * loudest:
            return "silent or unvoiced at %.0f ms, before the end its entry claims (%.0f ms)" % (k * FRAME_MS, end_ms)
    return None


def make_sample(work, name, kana):
    spoken = os.path.join(work, name + "_spoken.wav")
    clean = os.path.join(work, name + "_clean.wav")
    steady = os.path.join(work, name + "_steady.wav")
    final = os.path.join(BANK, name + ".wav")
    run("espeak-ng", "-v", "ja+f2", "-s", "80", "-p", "60", "-w", spoken, kana)
    # 44.1 kHz mono 16-bit, silence trimmed at both ends.
    run("sox", "-D", "-R", spoken, "-r", "44100", "-c", "1", "-b", "16", clean,
        "silence", "1", "0.005", "0.3%", "reverse", "silence", "1", "0.005", "0.3%", "reverse")
    # One steady pitch (modulation 0 sings exactly the note), lengthened to
    # the full sample where the voice is shorter (a nasal like "n" is spoken
    # briefly): the consonant as spoken, the voiced rest stretched.
    consonant_ms = vowel_frame(table(clean)) * FRAME_MS
    run(TONA, "resample", clean, steady, "--note", NOTE, "--modulation", "0", "--flags", "P100",
        "--length", str(MAX_SECONDS * 1000.0), "--consonant", "%.1f" % consonant_ms)
    run("sox", "-D", "-R", steady, final, "trim", "0", str(MAX_SECONDS), "fade", "0", str(MAX_SECONDS), "0.06",
        "gain", "-n", "-3")
    rows = table(final)
    vowel = vowel_frame(rows)
    duration_ms = len(rows) * FRAME_MS
    vowel_ms = vowel * FRAME_MS
    offset = max(0.0, vowel_ms - 120.0)
    preutterance = max(8.0, vowel_ms - offset)
    consonant = preutterance + 40.0
    overlap = min(25.0, preutterance / 3.0)
    blank = -(duration_ms - offset - 40.0)  # negative: the end, from the offset
    problem = check(name, rows, offset - blank)
    if problem is not None:
        sys.exit("make-demo-bank: %s.wav (%s): %s" % (name, kana, problem))
    return "%s.wav=%s,%.1f,%.1f,%.1f,%.1f,%.1f" % (name, kana, offset, consonant, blank, preutterance, overlap)


def tool_versions():
    """The versions of the tools that made the bank, as they report them."""
    espeak = subprocess.run(["espeak-ng", "--version"], check=True, capture_output=True, text=True).stdout
    sox = subprocess.run(["sox", "--version"], check=True, capture_output=True, text=True).stdout
    return "eSpeak NG " + espeak.split(":")[1].split()[0] + ", SoX " + sox.split()[-1]


def main():
    if os.path.isdir(BANK):
        shutil.rmtree(BANK)
    os.makedirs(BANK)
    with tempfile.TemporaryDirectory() as work:
        entries = [make_sample(work, name, kana) for name, kana in SYLLABLES]
    with open(os.path.join(BANK, "oto.ini"), "w", encoding="utf-8", newline="\n") as oto:
        oto.write("#Charset:UTF-8\n" + "\n".join(entries) + "\n")
    with open(os.path.join(BANK, "character.txt"), "w", encoding="utf-8", newline="\n") as character:
        character.write("charset=UTF-8\nname=TONA demo (eSpeak NG)\n")
    with open(os.path.join(BANK, "readme.txt"), "w", encoding="utf-8", newline="\n") as readme:
        readme.write(
            "TONA demo voice bank (UTF8)\n"
            "\n"
            "Origin: every syllable was spoken by eSpeak NG (its Japanese voice, variant f2,\n"
            "speed 80, pitch 60), brought to one steady pitch (A3, 220 Hz) by TONA's own\n"
            "resampler, trimmed by SoX and timed from its frequency table, all by\n"
            "scripts/make-demo-bank, which makes the same bank again from these tools.\n"
            "Made with: " + tool_versions() + "\n"
            "\n"
            "Licence: the samples and tables are dedicated to the public domain (CC0 1.0).\n"
            "eSpeak NG and SoX are only the tools that made them; no part of either is here.\n")
    print("%d samples in %s" % (len(SYLLABLES), BANK))


main()
