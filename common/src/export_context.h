// The context that an exported call runs in, where it touches shared files.
#ifndef ZEBCS_SRC_EXPORT_CONTEXT_H
#define ZEBCS_SRC_EXPORT_CONTEXT_H

#include "zebcs/frame.h"
#include "zebsupt_base.h"

// Enters the context of the first attach and leaves it on every way out.
class ExportContext {
 public:
  [[nodiscard]] ExportContext() { SetExportContext(&m_previous, &origECI); }
  ExportContext(const ExportContext &) = delete;
  ExportContext &operator=(const ExportContext &) = delete;
  ~ExportContext() { ResetExportContext(&m_previous); }

 private:
  KCSECInfo m_previous{};
};

#endif
