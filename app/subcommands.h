// Entry points of the subcommands, registered in commands.cpp.
#pragma once

int runVoicebank(int argc, char** argv);
extern const char kVoicebankUsage[];

int runInfo(int argc, char** argv);
extern const char kInfoUsage[];
int runConvert(int argc, char** argv);
extern const char kConvertUsage[];
int runAnalyze(int argc, char** argv);
extern const char kAnalyzeUsage[];
int runResample(int argc, char** argv);
extern const char kResampleUsage[];
int runRender(int argc, char** argv);
extern const char kRenderUsage[];
int runEdit(int argc, char** argv);
extern const char kEditUsage[];
int runRecover(int argc, char** argv);
extern const char kRecoverUsage[];
int runPlay(int argc, char** argv);
extern const char kPlayUsage[];
int runCache(int argc, char** argv);
extern const char kCacheUsage[];
int runImport(int argc, char** argv);
extern const char kImportUsage[];
int runExport(int argc, char** argv);
extern const char kExportUsage[];
