"""Builds the demo voice bank; run through scripts/make-demo-bank."""
import os
import shutil
import subprocess
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


def make_sample(work, name, kana):
    spoken = os.path.join(work, name + "_spoken.wav")
    clean = os.path.join(work, name + "_clean.wav")
    steady = os.path.join(work, name + "_steady.wav")
    final = os.path.join(BANK, name + ".wav")
    run("espeak-ng", "-v", "ja+f2", "-s", "80", "-p", "60", "-w", spoken, kana)
    # 44.1 kHz mono 16-bit, silence trimmed at both ends.
    run("sox", spoken, "-r", "44100", "-c", "1", "-b", "16", clean,
        "silence", "1", "0.005", "0.3%", "reverse", "silence", "1", "0.005", "0.3%", "reverse")
    # One steady pitch: modulation 0 sings exactly the note.
    run(TONA, "resample", clean, steady, "--note", NOTE, "--modulation", "0", "--flags", "P100")
    run("sox", steady, final, "trim", "0", str(MAX_SECONDS), "fade", "0", str(MAX_SECONDS), "0.06",
        "gain", "-n", "-3")
    rows = table(final)
    loudest = max(amplitude for amplitude, _ in rows)
    vowel = next(k for k, (amplitude, frequency) in enumerate(rows)
                 if frequency > 0 and amplitude >= 0.3 * loudest)
    duration_ms = len(rows) * FRAME_MS
    vowel_ms = vowel * FRAME_MS
    offset = max(0.0, vowel_ms - 120.0)
    preutterance = max(8.0, vowel_ms - offset)
    consonant = preutterance + 40.0
    overlap = min(25.0, preutterance / 3.0)
    blank = -(duration_ms - offset - 40.0)  # negative: the end, from the offset
    return "%s.wav=%s,%.1f,%.1f,%.1f,%.1f,%.1f" % (name, kana, offset, consonant, blank, preutterance, overlap)


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
            "\n"
            "Licence: the samples and tables are dedicated to the public domain (CC0 1.0).\n"
            "eSpeak NG and SoX are only the tools that made them; no part of either is here.\n")
    print("%d samples in %s" % (len(SYLLABLES), BANK))


main()
