// SPDX-License-Identifier: Apache-2.0
// Status codes, the diagnostic log with its $-token formatter, the debug
// flag word and the small helpers every module shares.
//
// The formatter builds each line in a 512-byte buffer on the caller's stack
// (no heap, no lock of its own) and hands the whole line to standard error
// (when asked) and to syslog.  Outcome lines that DebugFlag filters out are
// decided by a table lookup before any formatting.
#include "msg_main.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "msg_local_endpoint.h"

uint32_t DebugFlag = 0;

namespace {

struct StatusText {
    MSG_Status Status;
    const char *pText;
};

constexpr StatusText kStatusTexts[] = {
    {0, "OK"},
    {101, "open remote timeout"},
    {102, "receive timeout"},
    {103, "connection reset"},
    {104, "local endpoint not found"},
    {105, "remote endpoint not found"},
    {201, "memory overflow"},
    {202, "Linx error"},
    {203, "system error"},
    {300, "unknown error"},
    {301, "wrong parameter"},
    {302, "endpoint not open"},
    {303, "endpoint name conflict"},
    {304, "callback not found"},
    {305, "notification not found"},
    {306, "remote already open"},
    {307, "message corrupt"},
    {308, "message owner mismatch"},
    {309, "remote open already in progress"},
};

// Outcome statuses that are written only when their DebugFlag bit is set.
struct FilterRule {
    int Status;
    uint32_t Bit;
    int Level;
};

constexpr FilterRule kFilterRules[] = {
    {0, MSG_DEBUG_LOG_SUCCESS, LOG_INFO},
    {102, MSG_DEBUG_LOG_RECV_TIMEOUT, LOG_WARNING},
    {304, MSG_DEBUG_LOG_NO_CALLBACK, LOG_WARNING},
    {305, MSG_DEBUG_LOG_NO_NTFY, LOG_WARNING},
    {306, MSG_DEBUG_LOG_ALREADY_OPEN, LOG_WARNING},
    {309, MSG_DEBUG_LOG_OPEN_PENDING, LOG_WARNING},
};

constexpr int kLineBytes = 512;
constexpr int kMaxSpecChars = 6; // characters after '%' that may form a conversion

pthread_mutex_t gSequenceMutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t gSequence = 0;

// One line being formatted.  Full once Len reaches kLineBytes - 1 after a cut.
struct Line {
    char Text[kLineBytes];
    int Len;
    bool bFull;
    const LocalEndpoint *pLocal; // remembered by $plocal for $remote/$premote
    int32_t HalvoIdx;
    uint32_t Pid;
    const char *pProgName;
    const char *pFile;
    int LineNo;
    const char *pFunc;
};

// Counts Wanted more characters written at the end of the line; a line
// that reaches 512 keeps its first 511 and ends there.
void jGrow(Line *pLine, int Wanted)
{
    pLine->Len += Wanted > 0 ? Wanted : 0;
    if (pLine->Len >= kLineBytes) {
        pLine->Len = kLineBytes - 1;
        pLine->bFull = true;
    }
    pLine->Text[pLine->Len] = '\0';
}

// Appends a printf-formatted piece; cuts the line when it no longer fits.
void jAppendV(Line *pLine, const char *pFormat, va_list Args)
{
    jGrow(pLine, vsnprintf(pLine->Text + pLine->Len, kLineBytes - pLine->Len, pFormat, Args));
}

__attribute__((format(printf, 2, 3))) void jAppend(Line *pLine, const char *pFormat, ...)
{
    va_list Args;
    va_start(Args, pFormat);
    jAppendV(pLine, pFormat, Args);
    va_end(Args);
}

// For a conversion taken from the caller's format: checked by
// jPrintConversion's letter switch instead of the compiler.
void jAppendSpec(Line *pLine, const char *pSpec, ...)
{
    va_list Args;
    va_start(Args, pSpec);
    jAppendV(pLine, pSpec, Args);
    va_end(Args);
}

void jAppendChar(Line *pLine, char Char)
{
    pLine->Text[pLine->Len] = Char;
    jGrow(pLine, 1);
}

// A format the calling program got wrong (unknown conversion or token).
[[noreturn]] void jFormatFault(void)
{
    MSG_ASSERT(0);
    abort(); // not reached: MSG_ASSERT(0) aborts
}

void jPrintMessage(Line *pLine, const MSG_Msg *pMsg)
{
    if (pMsg == nullptr) {
        jAppend(pLine, "msg null");
        return;
    }
    jAppend(pLine, "msg %p->{type 0x%x, seq %u, local ep owner %p", (const void *)pMsg,
            pMsg->MsgType, pMsg->Sequence, (void *)(uintptr_t)pMsg->pOwner);
    const unsigned StackSize = pMsg->SendStackSize;
    if (StackSize > MSG_SEND_STACK_ELEM) {
        jAppend(pLine, ", CORRUPTED sender stack");
    } else if (StackSize > 0) {
        const uint32_t Sender = pMsg->SendStack[StackSize - 1];
        const uint32_t OrigSender = pMsg->SendStack[0];
        if (Sender != 0)
            jAppend(pLine, ", sender 0x%x", Sender);
        if (OrigSender != 0 && OrigSender != Sender)
            jAppend(pLine, ", orig sender 0x%x", OrigSender);
    }
    const int32_t PayloadBytes = pMsg->PayloadBytes;
    jAppend(pLine, ", size %d, payload [", PayloadBytes);
    if (PayloadBytes < 0) {
        jAppend(pLine, "CORRUPTED");
    } else {
        const uint8_t *pPayload = (const uint8_t *)(pMsg + 1);
        const int Shown = PayloadBytes < 4 ? PayloadBytes : 4;
        for (int i = 0; i < Shown; i++)
            jAppend(pLine, i == 0 ? "0x%x" : ",0x%x", pPayload[i]);
        if (PayloadBytes > 4)
            jAppend(pLine, ",...");
    }
    jAppend(pLine, "]}");
}

// The remote's name as the remembered local endpoint's table knows it,
// written straight into the line; "unknown" when there is none.
void jPrintRemote(Line *pLine, uint32_t RemoteId)
{
    jAppend(pLine, "remote ep 0x%x/\"", RemoteId);
    if (pLine->bFull)
        return;
    const int32_t Written = MSG_GetRemoteName(const_cast<LocalEndpoint *>(pLine->pLocal), RemoteId,
                                              pLine->Text + pLine->Len, kLineBytes - pLine->Len);
    if (Written > 0)
        jGrow(pLine, Written);
    else
        jAppend(pLine, "unknown");
    jAppend(pLine, "\"");
}

void jPrintSigselect(Line *pLine, const int32_t *pSigselect)
{
    if (pSigselect == nullptr) {
        jAppend(pLine, "(null)");
        return;
    }
    const uint32_t Count = (uint32_t)pSigselect[0];
    if (Count == 0) {
        jAppend(pLine, "sigselect [0]");
        return;
    }
    jAppend(pLine, "sigselect [%d", pSigselect[0]);
    const uint32_t Shown = Count < 3 ? Count : 3;
    for (uint32_t i = 1; i <= Shown; i++)
        jAppend(pLine, ",0x%x", (uint32_t)pSigselect[i]);
    jAppend(pLine, Count > 3 ? ",...]" : "]");
}

void jPrintCallback(Line *pLine, const MSG_Callback *pCallback)
{
    if (pCallback == nullptr) {
        jAppend(pLine, "callback null");
        return;
    }
    void *pFuncAddr;
    static_assert(sizeof pFuncAddr == sizeof pCallback->pFunc, "function pointers fit void *");
    memcpy(&pFuncAddr, &pCallback->pFunc, sizeof pFuncAddr);
    jAppend(pLine, "callback {pFunc %p, pContext %p, range 0x%x-0x%x, oneshot %d}", pFuncAddr,
            pCallback->pContext, pCallback->MsgTypeMin, pCallback->MsgTypeMax,
            (int)pCallback->bOneShot);
}

enum class Token {
    Callback, Errno, Err, Pint, Plocal, Local, Message, Remote, Premote,
    Signal, Psignal, Sigselect, Func, File, LineNo, Halvo, Pid, Progname,
};

struct TokenName {
    const char *pName;
    size_t Len;
    Token Kind;
};

// Tried in this order; the first name the text begins with wins, so
// "$errno" is errno and "$errors" is err followed by "ors".
constexpr TokenName kTokens[] = {
    {"callback", 8, Token::Callback}, {"errno", 5, Token::Errno},
    {"err", 3, Token::Err},           {"pint", 4, Token::Pint},
    {"plocal", 6, Token::Plocal},     {"local", 5, Token::Local},
    {"message", 7, Token::Message},   {"remote", 6, Token::Remote},
    {"premote", 7, Token::Premote},   {"signal", 6, Token::Signal},
    {"psignal", 7, Token::Psignal},   {"sigselect", 9, Token::Sigselect},
    {"func", 4, Token::Func},         {"file", 4, Token::File},
    {"line", 4, Token::LineNo},       {"halvo", 5, Token::Halvo},
    {"pid", 3, Token::Pid},           {"progname", 8, Token::Progname},
};

const TokenName *jFindToken(const char *pText)
{
    for (const TokenName &Name : kTokens)
        if (strncmp(pText, Name.pName, Name.Len) == 0)
            return &Name;
    return nullptr;
}

void jPrintToken(Line *pLine, Token Kind, va_list *pArgs)
{
    switch (Kind) {
    case Token::Callback:
        jPrintCallback(pLine, va_arg(*pArgs, const MSG_Callback *));
        break;
    case Token::Errno:
        jAppend(pLine, "result %d", va_arg(*pArgs, int));
        break;
    case Token::Err: {
        const int Status = va_arg(*pArgs, int);
        jAppend(pLine, "result %d/%s", Status, MSG_DebugStrError((MSG_Status)Status));
        break;
    }
    case Token::Pint: {
        const int *pValue = va_arg(*pArgs, const int *);
        pValue ? jAppend(pLine, "%d", *pValue) : jAppend(pLine, "null");
        break;
    }
    case Token::Plocal:
        pLine->pLocal = va_arg(*pArgs, const LocalEndpoint *);
        pLine->pLocal ? jAppend(pLine, "local ep %p/\"%s\"", (const void *)pLine->pLocal,
                                pLine->pLocal->Name)
                      : jAppend(pLine, "local ep null");
        break;
    case Token::Local: {
        const char *pName = va_arg(*pArgs, const char *);
        pName ? jAppend(pLine, "local ep \"%s\"", pName) : jAppend(pLine, "local ep null");
        break;
    }
    case Token::Message:
        jPrintMessage(pLine, va_arg(*pArgs, const MSG_Msg *));
        break;
    case Token::Remote:
        jPrintRemote(pLine, va_arg(*pArgs, uint32_t));
        break;
    case Token::Premote: {
        const uint32_t *pId = va_arg(*pArgs, const uint32_t *);
        pId ? jPrintRemote(pLine, *pId) : jAppend(pLine, "remote ep null");
        break;
    }
    case Token::Signal: {
        // The variable holds a signal address; printed whole, so a 64-bit
        // process shows the full native address.
        void *const *ppSignal = va_arg(*pArgs, void *const *);
        ppSignal ? jAppend(pLine, "Linx sig addr 0x%lx", (unsigned long)(uintptr_t)*ppSignal)
                 : jAppend(pLine, "Linx sig addr null");
        break;
    }
    case Token::Psignal: {
        const uint32_t *const *ppSignal = va_arg(*pArgs, const uint32_t *const *);
        if (ppSignal == nullptr) {
            jAppend(pLine, "Linx sig addr null");
            break;
        }
        jAppend(pLine, "Linx sig %p->", (const void *)ppSignal);
        *ppSignal ? jAppend(pLine, "{0x%x}", **ppSignal) : jAppend(pLine, "{null}");
        break;
    }
    case Token::Sigselect:
        jPrintSigselect(pLine, va_arg(*pArgs, const int32_t *));
        break;
    case Token::Func:
        if (pLine->pFunc != nullptr)
            jAppend(pLine, "%s", pLine->pFunc);
        break;
    case Token::File:
        if (pLine->pFile != nullptr)
            jAppend(pLine, "%s", MSG_Basename(pLine->pFile));
        break;
    case Token::LineNo:
        jAppend(pLine, "%d", pLine->LineNo);
        break;
    case Token::Halvo:
        jAppend(pLine, "hd[%d]", pLine->HalvoIdx);
        break;
    case Token::Pid:
        jAppend(pLine, "%u", pLine->Pid);
        break;
    case Token::Progname:
        jAppend(pLine, "%s", pLine->pProgName);
        break;
    }
}

bool jIsSpecChar(char Char)
{
    return Char == '+' || Char == '-' || Char == '.' || (Char >= '0' && Char <= '9');
}

// Formats one '%' conversion starting at pFormat (the '%'); returns the
// number of format characters consumed.
int jPrintConversion(Line *pLine, const char *pFormat, va_list *pArgs)
{
    int Used = 1;
    while (Used < kMaxSpecChars && jIsSpecChar(pFormat[Used]))
        Used++;
    const char Letter = pFormat[Used++];
    char Spec[kMaxSpecChars + 2];
    memcpy(Spec, pFormat, Used);
    Spec[Used] = '\0';
    switch (Letter) {
    case 'd':
        jAppendSpec(pLine, Spec, va_arg(*pArgs, int));
        break;
    case 'u':
    case 'x':
        jAppendSpec(pLine, Spec, va_arg(*pArgs, unsigned));
        break;
    case 'p':
        jAppendSpec(pLine, Spec, va_arg(*pArgs, void *));
        break;
    case 's':
        jAppendSpec(pLine, Spec, va_arg(*pArgs, const char *));
        break;
    case '%':
        jAppend(pLine, "%%");
        break;
    default: // includes '\0': a conversion cut off by the end of the format
        jFormatFault();
    }
    return Used;
}

void jWriteLine(int Level, const Line *pLine)
{
    if (jDebugFlag() & MSG_DEBUG_STDERR) {
        struct timespec Now;
        clock_gettime(CLOCK_MONOTONIC, &Now);
        fprintf(stderr, "%lu.%06lu %s", (unsigned long)Now.tv_sec,
                (unsigned long)Now.tv_nsec / 1000, pLine->Text);
        fflush(stderr);
    }
    syslog(Level, "%s", pLine->Text);
}

MSG_Status MSG_Debug_sprintf(int Level, const char *pFile, int LineNo, const char *pFunc,
                             const char *pFormat, va_list Args)
{
    Line L;
    L.Text[0] = '\0';
    L.Len = 0;
    L.bFull = false;
    L.pLocal = nullptr;
    L.pFile = pFile;
    L.LineNo = LineNo;
    L.pFunc = pFunc;
    MSG_GetProcessInfo(&L.HalvoIdx, &L.Pid, &L.pProgName);

    va_list ArgsCopy;
    va_copy(ArgsCopy, Args);
    for (const char *p = pFormat; *p != '\0' && !L.bFull;) {
        if (*p == '%') {
            p += jPrintConversion(&L, p, &ArgsCopy);
        } else if (*p == '$') {
            const TokenName *pToken = jFindToken(p + 1);
            if (pToken == nullptr)
                jFormatFault();
            jPrintToken(&L, pToken->Kind, &ArgsCopy);
            p += 1 + pToken->Len;
        } else {
            jAppendChar(&L, *p++);
        }
    }
    va_end(ArgsCopy);
    jWriteLine(Level, &L);
    return MSG_OK;
}

const FilterRule *jFindFilterRule(int Status)
{
    for (const FilterRule &Rule : kFilterRules)
        if (Rule.Status == Status)
            return &Rule;
    return nullptr;
}

} // namespace

const char *MSG_DebugStrError(MSG_Status Status)
{
    for (const StatusText &Entry : kStatusTexts)
        if (Entry.Status == Status)
            return Entry.pText;
    return "UndefinedError";
}

MSG_Status MSG_LogOs(int Level, const char *pFile, int LineNo, const char *pFunc,
                     const char *pFormat, ...)
{
    if (pFormat == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    va_list Args;
    va_start(Args, pFormat);
    const MSG_Status Result = MSG_Debug_sprintf(Level, pFile, LineNo, pFunc, pFormat, Args);
    va_end(Args);
    return Result;
}

MSG_Status MSG_LogErrFilter(int Status, const char *pFile, int LineNo, const char *pFunc,
                            const char *pFormat, ...)
{
    if (pFormat == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    int Level = LOG_ERR;
    if (const FilterRule *pRule = jFindFilterRule(Status)) {
        if ((jDebugFlag() & pRule->Bit) == 0)
            return MSG_OK;
        Level = pRule->Level;
    }
    va_list Args;
    va_start(Args, pFormat);
    const MSG_Status Result = MSG_Debug_sprintf(Level, pFile, LineNo, pFunc, pFormat, Args);
    va_end(Args);
    return Result;
}

MSG_Status MSG_DebugSetFlag(uint32_t Flag)
{
    __atomic_store_n(&DebugFlag, Flag, __ATOMIC_RELAXED);
    return MSG_OK;
}

uint32_t MSG_DebugGetFlag(void)
{
    return jDebugFlag();
}

MSG_Status MSG_DebugSetName(void)
{
    return MSG_OK;
}

int32_t MSG_CalcElapsedMsec(struct timespec Start, struct timespec End)
{
    const int32_t Seconds = (int32_t)(End.tv_sec - Start.tv_sec);
    const int32_t Nanoseconds = (int32_t)(End.tv_nsec - Start.tv_nsec);
    return 1000 * Seconds + Nanoseconds / 1000000;
}

int32_t MSG_GetMsecSince(struct timespec Start)
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return MSG_CalcElapsedMsec(Start, Now);
}

uint32_t MSG_GetNextSequence(void)
{
    pthread_mutex_lock(&gSequenceMutex);
    gSequence = ((gSequence + 1) & 0x00FFFFFFu) | (gSequence & 0xFF000000u);
    const uint32_t Next = gSequence;
    pthread_mutex_unlock(&gSequenceMutex);
    return Next;
}

void *MSG_Malloc(uint32_t Size)
{
    void *pBlock = malloc(Size);
    if (pBlock != nullptr)
        memset(pBlock, 0xCC, Size);
    return pBlock;
}

void MSG_Free(void *ptr)
{
    MSG_ASSERT(ptr != NULL);
    free(ptr);
}

char *MSG_Strdup(const char *pString)
{
    return strdup(pString);
}

const char *MSG_Basename(const char *pPath)
{
    const char *pSlash = strrchr(pPath, '/');
    return pSlash != nullptr ? pSlash + 1 : pPath;
}

MSG_Status MSG_SetExtraFlags(MSG_Msg *pMsg, uint32_t Flags)
{
    MSG_ASSERT(pMsg != NULL);
    uint32_t Word;
    memcpy(&Word, &pMsg->SendStackSize, sizeof Word);
    Word = (Flags & ~0xFFu) | (Word & 0xFFu);
    memcpy(&pMsg->SendStackSize, &Word, sizeof Word);
    return MSG_OK;
}

uint32_t MSG_GetExtraFlags(const MSG_Msg *pMsg)
{
    MSG_ASSERT(pMsg != NULL);
    uint32_t Word;
    memcpy(&Word, &pMsg->SendStackSize, sizeof Word);
    return Word & ~0xFFu;
}
