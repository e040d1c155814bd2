#include "voicebank/freqtable.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/byteorder.h"
#include "support/log.h"
#include "support/regular_file.h"
#include "support/safe_output.h"
#include "voicebank/pitch.h"

namespace {

const char kFrqMagic[] = "FREQ0003";
const char kF0Magic[] = "F0TBL003";
const char kTextHeader[] = "frequencies list Ver0.03";

bool hasFlag(const char* flags, char letter) { return flags != nullptr && strchr(flags, letter) != nullptr; }

long long fileSize(FILE* file) {
  struct stat info;
  return fstat(fileno(file), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

// Two arrays of count + 1 values; false (nothing allocated) on failure.
bool allocatePair(int32_t count, double** first, double** second) {
  *first = static_cast<double*>(calloc(static_cast<size_t>(count) + 1, sizeof(double)));
  *second = static_cast<double*>(calloc(static_cast<size_t>(count) + 1, sizeof(double)));
  if (*first != nullptr && *second != nullptr) return true;
  free(*first);
  free(*second);
  *first = *second = nullptr;
  return false;
}

// Hands a complete table over to the caller, or frees it. Returns the
// count handed over (0 when incomplete).
int32_t handOver(bool complete, int32_t count, double* freq, double* amp, double avg, double** frequencies,
                 double** amplitudes, double* average) {
  if (!complete) {
    free(freq);
    free(amp);
    return 0;
  }
  // A value that is no number (a table is a file anyone can edit) reads
  // as 0: unvoiced, silent, no average.
  for (int32_t k = 0; k <= count; ++k) {
    if (!std::isfinite(freq[k])) freq[k] = 0.0;
    if (!std::isfinite(amp[k])) amp[k] = 0.0;
  }
  if (!std::isfinite(avg)) avg = 0.0;
  *frequencies = freq;
  *amplitudes = amp;
  *average = avg;
  return count;
}

}  // namespace

std::string frequencyTablePath(const char* samplePath, const char* extension) {
  std::string path = std::string(samplePath) + "." + extension;
  if (strcmp(extension, "f0") == 0) return path;
  const std::string pattern = std::string(".wav.") + extension;
  const size_t at = path.find(pattern);
  if (at != std::string::npos) path[at] = '_';
  return path;
}

int32_t readFrequenciesList(const char* samplePath, double** frequencies, double** amplitudes, double* average,
                            int32_t step) {
  const std::string tablePath = frequencyTablePath(samplePath, "frq");
  struct stat sample, table;
  if (stat(samplePath, &sample) != 0 || stat(tablePath.c_str(), &table) != 0) return 0;
  if (sample.st_mtime > table.st_mtime && (table.st_mode & S_IWUSR) != 0) return 0;  // stale
  FILE* file = openRegularFile(tablePath.c_str(), "rb");
  if (file == nullptr) return 0;
  const long long size = fileSize(file);
  char magic[8];
  int32_t storedStep = 0, count = 0;
  double avg = 0.0;
  char reserved[16];
  int32_t result = 0;
  if (fread(magic, 8, 1, file) == 1 && memcmp(magic, kFrqMagic, 8) == 0 &&
      freade(&storedStep, 4, 1, file, false) == 1 && storedStep == step && freade(&avg, 8, 1, file, false) == 1 &&
      fread(reserved, 16, 1, file) == 1 && freade(&count, 4, 1, file, false) == 1 && count >= 1 &&
      40 + 16LL * count <= size) {
    double *freq = nullptr, *amp = nullptr;
    if (allocatePair(count, &freq, &amp)) {
      bool complete = true;
      for (int32_t k = 0; k < count && complete; ++k) {
        complete = freade(&freq[k], 8, 1, file, false) == 1 && freade(&amp[k], 8, 1, file, false) == 1;
      }
      if (complete) {
        freq[count] = freq[count - 1];
        amp[count] = amp[count - 1];
      }
      result = handOver(complete, count, freq, amp, avg, frequencies, amplitudes, average);
    }
  }
  fclose(file);
  return result;
}

int32_t writeFrequenciesList(const char* samplePath, const double* frequencies, const double* amplitudes, int32_t count,
                             double average, int32_t step) {
  // Through a temporary file: a reader never meets half a table, and a
  // link to some other file is not written through.
  SafeOutput out(frequencyTablePath(samplePath, "frq"), false);
  FILE* file = out.path().empty() ? nullptr : fopen(out.path().c_str(), "wb");
  if (file == nullptr) return 0;
  const char reserved[16] = {0};
  fwrite(kFrqMagic, 8, 1, file);
  fwritee(&step, 4, 1, file, false);
  fwritee(&average, 8, 1, file, false);
  fwrite(reserved, 16, 1, file);
  fwritee(&count, 4, 1, file, false);
  for (int32_t k = 0; k < count; ++k) {
    fwritee(&frequencies[k], 8, 1, file, false);
    fwritee(&amplitudes[k], 8, 1, file, false);
  }
  const bool failed = ferror(file) != 0;
  return (fclose(file) == 0 && !failed && out.commit()) ? 1 : 0;
}

int32_t readFrequenciesText(const char* samplePath, double** frequencies, double** amplitudes, double* average,
                            int32_t step) {
  FILE* file = openRegularFile(frequencyTablePath(samplePath, "frt").c_str(), "rt");
  if (file == nullptr) return 0;
  const long long size = fileSize(file);
  char line[512];
  long storedStep = step, length = 0;
  double avg = 0.0;
  bool headerEnded = false;
  if (fgets(line, sizeof line, file) != nullptr && strncmp(line, kTextHeader, strlen(kTextHeader)) == 0) {
    // Header lines up to the empty one; a file that ends first is unusable.
    while (fgets(line, sizeof line, file) != nullptr) {
      if (line[0] == '\n') {
        headerEnded = true;
        break;
      }
      if (strncmp(line, "freq_avg: ", 10) == 0) sscanf(line, "freq_avg: %lfHz", &avg);
      if (strncmp(line, "step: ", 6) == 0) sscanf(line, "step: %ld", &storedStep);
      if (strncmp(line, "length: ", 8) == 0) sscanf(line, "length: %ld", &length);
    }
  }
  int32_t result = 0;
  // Every frame line takes at least four bytes ("0\t0Hz" and more).
  if (headerEnded && storedStep == step && length > 0 && length <= size / 4) {
    double *freq = nullptr, *amp = nullptr;
    if (allocatePair(static_cast<int32_t>(length), &freq, &amp)) {
      long k = 0;
      for (; k < length && fgets(line, sizeof line, file) != nullptr; ++k) {
        sscanf(line, "%lf\t%lfHz", &amp[k], &freq[k]);
      }
      result = handOver(k == length, static_cast<int32_t>(length), freq, amp, avg, frequencies, amplitudes, average);
    }
  }
  fclose(file);
  return result;
}

int32_t writeFrequenciesText(const char* samplePath, const double* frequencies, const double* amplitudes, int32_t count,
                             double average, int32_t step) {
  SafeOutput out(frequencyTablePath(samplePath, "frt"), false);
  FILE* file = out.path().empty() ? nullptr : fopen(out.path().c_str(), "wt");
  if (file == nullptr) return 0;
  char name[16];
  fprintf(file, "%s\n", kTextHeader);
  fprintf(file, "freq_avg: %0.5lfHz (%s)\n", average, getToneName(average, name));
  fprintf(file, "step: %d\n", step);
  fprintf(file, "length: %d\n", count);
  fprintf(file, "\n");
  for (int32_t k = 0; k < count; ++k) {
    fprintf(file, "%5.5lf\t%0.5lfHz\t(%s)\n", amplitudes[k], frequencies[k], getToneName(frequencies[k], name));
  }
  const bool failed = ferror(file) != 0;
  return (fclose(file) == 0 && !failed && out.commit()) ? 1 : 0;
}

double* initFrequenciesList(double** amplitudes, double* average, const char* samplePath, const char* flags,
                            const int16_t* samples, int32_t frames, int32_t sampleRate, int32_t channels, int32_t,
                            int32_t step) {
  double* freq = nullptr;
  double* amp = nullptr;
  double avg = 0.0;
  if (amplitudes != nullptr) *amplitudes = nullptr;
  if (step <= 0 || frames < 0) return nullptr;
  // Readers look at frames 0..frames / step + 1; a table of count frames
  // holds count + 1 values (the last repeated). A stored table the trust
  // rule accepts is used as it is, even one made for a shorter sample (a
  // hand-made one, say): the frames it lacks read as unvoiced and silent,
  // never past its end.
  const int32_t needed = frames / step;
  if (!hasFlag(flags, 'G')) {
    int32_t count = readFrequenciesList(samplePath, &freq, &amp, &avg, step);
    if (count == 0) {
      count = readFrequenciesText(samplePath, &freq, &amp, &avg, step);
      if (count > 0) writeFrequenciesList(samplePath, freq, amp, count, avg, step);
    }
    if (count > 0 && count < needed + 1) {
      double* longer = static_cast<double*>(realloc(freq, sizeof(double) * static_cast<size_t>(needed + 2)));
      if (longer != nullptr) freq = longer;
      double* louder = static_cast<double*>(realloc(amp, sizeof(double) * static_cast<size_t>(needed + 2)));
      if (louder != nullptr) amp = louder;
      if (longer == nullptr || louder == nullptr) {
        free(freq);
        free(amp);
        return nullptr;
      }
      for (int32_t k = count; k < needed + 2; ++k) freq[k] = amp[k] = 0.0;
    }
  }
  if (freq == nullptr) {
    log_printf(3, "Generating frequency list...\n");
    freq = bcfGetFrequencyList(&amp, &avg, frames, needed, sampleRate, channels, samples, flags);
    if (freq == nullptr) return nullptr;
    writeFrequenciesList(samplePath, freq, amp, needed + 1, avg, step);
    log_printf(3, "Done.\n");
  }
  if (hasFlag(flags, 'T')) writeFrequenciesText(samplePath, freq, amp, needed + 1, avg, step);
  if (average != nullptr) *average = avg;
  if (amplitudes != nullptr) {
    *amplitudes = amp;
  } else {
    free(amp);
  }
  return freq;
}

int32_t readSpecTable(const char* samplePath, double** values) {
  FILE* file = openRegularFile(frequencyTablePath(samplePath, "f0").c_str(), "rb");
  if (file == nullptr) return 0;
  const long long size = fileSize(file);
  char magic[8];
  int32_t count = 0;
  int32_t result = 0;
  if (fread(magic, 8, 1, file) == 1 && memcmp(magic, kF0Magic, 8) == 0 && freade(&count, 4, 1, file, false) == 1 &&
      count > 0) {
    if (8LL * count > size - 12) count = static_cast<int32_t>((size - 12) / 8);
    double* table = count > 0 ? static_cast<double*>(malloc(sizeof(double) * static_cast<size_t>(count))) : nullptr;
    if (table != nullptr && fread(table, 8, static_cast<size_t>(count), file) == static_cast<size_t>(count)) {
      *values = table;
      result = count;
    } else {
      free(table);
    }
  }
  fclose(file);
  return result;
}

double* readFreq(const char* samplePath, int32_t* count) {
  double *freq = nullptr, *amp = nullptr;
  double avg = 0.0;
  const int32_t n = readFrequenciesList(samplePath, &freq, &amp, &avg, kAnalysisStep);
  if (n == 0) return nullptr;
  free(amp);
  if (avg > 0.0) {
    for (int32_t k = 0; k <= n; ++k) {
      if (freq[k] <= 55.0) freq[k] = 0.0;
      freq[k] = std::log2(freq[k] / avg);  // unvoiced frames: minus infinity
    }
  }
  if (count != nullptr) *count = n;
  return freq;
}
