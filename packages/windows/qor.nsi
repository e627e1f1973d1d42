; The installer for 64-bit Windows. pack.py calls makensis with the definitions VERSION, NUMBERS, STAGE (the folder with
; the files), PATH_ENTRY (the program that changes the search path), LISTS (the folder with install.nsh, remove.nsh and
; folders.nsh, which are made from the list of the files), OUT, SIZE, and SIGN, a script that signs, where there is one.
;
; setup.exe [/CurrentUser | /AllUsers] [/S] [/NoPath] [/D=FOLDER]
Target amd64-unicode
Unicode true
SetDateSave off
SetCompressor /SOLID zlib
ManifestSupportedOS Win10
ManifestDPIAware true
ManifestLongPathAware true
; Rights are asked for only when they are needed.
RequestExecutionLevel user

!include MUI2.nsh
!include LogicLib.nsh
!include FileFunc.nsh
!include nsDialogs.nsh
!include WinVer.nsh

!define UNINSTALL "Software\Microsoft\Windows\CurrentVersion\Uninstall\qor"
; The system's numbers for "needs more rights" and "needs a newer Windows".
!define ELEVATION_REQUIRED 740
!define OLD_WIN_VERSION 1150

Name "qor ${VERSION}"
OutFile "${OUT}"
BrandingText " "
ShowInstDetails hide

VIProductVersion "${NUMBERS}"
VIFileVersion "${NUMBERS}"
VIAddVersionKey CompanyName "qor"
VIAddVersionKey FileDescription "Installs qor"
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey LegalCopyright ""
VIAddVersionKey ProductName "qor"
VIAddVersionKey ProductVersion "${VERSION}"

!ifdef SIGN
!uninstfinalize 'sh "${SIGN}" "%1"' = 0
!endif

Var Scope       ; user or machine
Var ByCommand   ; the folder that the command line names, or empty
Var Folder      ; the same as the last option, which ${GetParameters} leaves out
Var ForAll      ; the button of the page

!define MUI_ABORTWARNING
Page custom ChooseScope LeaveScope
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE English
!insertmacro MUI_LANGUAGE German
!insertmacro MUI_LANGUAGE French

LangString ScopeTitle ${LANG_ENGLISH} "For whom?"
LangString ScopeTitle ${LANG_GERMAN} "Für wen?"
LangString ScopeTitle ${LANG_FRENCH} "Pour qui ?"
LangString ScopeMine ${LANG_ENGLISH} "Only for me"
LangString ScopeMine ${LANG_GERMAN} "Nur für mich"
LangString ScopeMine ${LANG_FRENCH} "Pour moi seulement"
LangString ScopeAll ${LANG_ENGLISH} "For all users of this computer (needs an administrator)"
LangString ScopeAll ${LANG_GERMAN} "Für alle Benutzer dieses Computers (nur mit Administratorrechten)"
LangString ScopeAll ${LANG_FRENCH} "Pour tous les utilisateurs de cet ordinateur (droits d'administrateur requis)"
LangString NeedsNewer ${LANG_ENGLISH} "qor needs Windows 10 or later."
LangString NeedsNewer ${LANG_GERMAN} "qor braucht Windows 10 oder neuer."
LangString NeedsNewer ${LANG_FRENCH} "qor demande Windows 10 ou une version ultérieure."
LangString NeedsRights ${LANG_ENGLISH} "This needs the rights of an administrator."
LangString NeedsRights ${LANG_GERMAN} "Dafür sind Administratorrechte nötig."
LangString NeedsRights ${LANG_FRENCH} "Cela demande des droits d'administrateur."
LangString InUse ${LANG_ENGLISH} "Some files could not be written. Is a program of qor running?"
LangString InUse ${LANG_GERMAN} "Einige Dateien konnten nicht geschrieben werden. Läuft ein Programm von qor?"
LangString InUse ${LANG_FRENCH} "Certains fichiers n'ont pas pu être écrits. Un programme de qor est-il en cours ?"
LangString NoPath ${LANG_ENGLISH} "The search path could not be changed."
LangString NoPath ${LANG_GERMAN} "Der Suchpfad konnte nicht geändert werden."
LangString NoPath ${LANG_FRENCH} "Le chemin de recherche n'a pas pu être modifié."

; ---- what the installer and the uninstaller share

; Sets the error flag if this process is not an administrator's.
!macro HAS_RIGHTS
    UserInfo::GetAccountType
    Pop $R9
    ClearErrors
    ${If} $R9 != "Admin"
        SetErrors
    ${EndIf}
!macroend

; Starts PROGRAM again with more rights, or ends with an error where nobody could be asked. A system that gives no more
; rights to the second process would start one after the other, so that one is told that it is the second.
!macro ASK_FOR_RIGHTS PROGRAM WORDS
    ${If} ${Silent}
        SetErrorLevel ${ELEVATION_REQUIRED}
        Quit
    ${EndIf}
    ${GetParameters} $R8
    ClearErrors
    ${GetOptions} $R8 "/Elevated" $R7
    ${If} ${Errors}
        ClearErrors
        ExecShell "runas" "${PROGRAM}" "${WORDS}"
        ${IfNot} ${Errors}
            SetErrorLevel 0
            Quit
        ${EndIf}
    ${EndIf}
    SetErrorLevel ${ELEVATION_REQUIRED}
    MessageBox MB_OK|MB_ICONSTOP "$(NeedsRights)"
    Quit
!macroend

!macro USE_SCOPE
    ${If} $Scope == machine
        SetShellVarContext all
    ${Else}
        SetShellVarContext current
    ${EndIf}
!macroend

; Gets the result of path-entry in $R0.
!macro PATH_ENTRY ACTION
    InitPluginsDir
    File "/oname=$PLUGINSDIR\path-entry.exe" "${PATH_ENTRY}"
    StrCpy $R0 1
    ExecWait '"$PLUGINSDIR\path-entry.exe" ${ACTION} $Scope "$INSTDIR\bin"' $R0
!macroend

!macro END_IN_USE
    SetErrorLevel 2
    MessageBox MB_OK|MB_ICONSTOP "$(InUse)" /SD IDOK
    Abort "$(InUse)"
!macroend

!macro REFUSE_FILE_IN_USE FILE
    ${If} ${FileExists} "${FILE}"
        ClearErrors
        FileOpen $R8 "${FILE}" a
        ${If} ${Errors}
            !insertmacro END_IN_USE
        ${EndIf}
        FileClose $R8
    ${EndIf}
!macroend

; Ends with an error while a program of qor runs from the folder: each of them has libqor open. A recorded program that
; runs longer than its recorder has the hooks open.
!macro REFUSE_IN_USE FOLDER
    !insertmacro REFUSE_FILE_IN_USE "${FOLDER}\bin\libqor.dll"
    !insertmacro REFUSE_FILE_IN_USE "${FOLDER}\bin\qor-record-hooks.dll"
!macroend

; ---- the installer

; The folder of an earlier installation, or the usual one.
Function DefaultFolder
    !insertmacro USE_SCOPE
    ${If} $ByCommand != ""
        StrCpy $INSTDIR $ByCommand
        Return
    ${EndIf}
    ReadRegStr $INSTDIR SHCTX "${UNINSTALL}" "InstallLocation"
    ${If} $INSTDIR != ""
        Return
    ${EndIf}
    ${If} $Scope == machine
        StrCpy $INSTDIR "$PROGRAMFILES64\qor"
    ${Else}
        StrCpy $INSTDIR "$LOCALAPPDATA\Programs\qor"
    ${EndIf}
FunctionEnd

Function .onInit
    ${IfNot} ${AtLeastWin10}
        SetErrorLevel ${OLD_WIN_VERSION}
        MessageBox MB_OK|MB_ICONSTOP "$(NeedsNewer)" /SD IDOK
        Quit
    ${EndIf}
    StrCpy $ByCommand $INSTDIR
    StrCpy $Scope user
    ${If} $ByCommand != ""
        StrCpy $Folder " /D=$ByCommand"
    ${EndIf}
    ${GetParameters} $R0
    ClearErrors
    ${GetOptions} $R0 "/AllUsers" $R1
    ${IfNot} ${Errors}
        StrCpy $Scope machine
        !insertmacro HAS_RIGHTS
        ${If} ${Errors}
            !insertmacro ASK_FOR_RIGHTS "$EXEPATH" "$R0 /Elevated$Folder"
        ${EndIf}
    ${EndIf}
    Call DefaultFolder
FunctionEnd

Function ChooseScope
    !insertmacro MUI_HEADER_TEXT "$(ScopeTitle)" ""
    nsDialogs::Create 1018
    Pop $R0
    ${NSD_CreateRadioButton} 0 20u 100% 12u "$(ScopeMine)"
    Pop $R1
    ${NSD_CreateRadioButton} 0 40u 100% 12u "$(ScopeAll)"
    Pop $ForAll
    ${If} $Scope == machine
        ${NSD_Check} $ForAll
    ${Else}
        ${NSD_Check} $R1
    ${EndIf}
    nsDialogs::Show
FunctionEnd

Function LeaveScope
    ${NSD_GetState} $ForAll $R0
    ${If} $R0 == ${BST_CHECKED}
        StrCpy $Scope machine
        !insertmacro HAS_RIGHTS
        ${If} ${Errors}
            ${GetParameters} $R0
            !insertmacro ASK_FOR_RIGHTS "$EXEPATH" "$R0 /AllUsers /Elevated$Folder"
        ${EndIf}
    ${Else}
        StrCpy $Scope user
    ${EndIf}
    Call DefaultFolder
FunctionEnd

Section
    !insertmacro USE_SCOPE
    !insertmacro REFUSE_IN_USE $INSTDIR
    ; Another version may have other files.
    ReadRegStr $R1 SHCTX "${UNINSTALL}" "InstallLocation"
    ${If} $R1 != ""
    ${AndIf} ${FileExists} "$R1\uninstall.exe"
        StrCpy $R2 1
        ExecWait '"$R1\uninstall.exe" /S _?=$R1' $R2
        ${If} $R2 != 0
            !insertmacro END_IN_USE
        ${EndIf}
        ; It could not remove itself. The folder is kept if it has files of others.
        Delete "$R1\uninstall.exe"
        RMDir "$R1"
    ${EndIf}

    SetOverwrite try
    ClearErrors
    !include "${LISTS}/install.nsh"
    SetOutPath "$INSTDIR"
    WriteUninstaller "$INSTDIR\uninstall.exe"
    ${If} ${Errors}
        !insertmacro END_IN_USE
    ${EndIf}

    WriteRegStr SHCTX "${UNINSTALL}" "DisplayName" "qor"
    WriteRegStr SHCTX "${UNINSTALL}" "DisplayVersion" "${VERSION}"
    WriteRegStr SHCTX "${UNINSTALL}" "DisplayIcon" "$INSTDIR\bin\qortool.exe"
    WriteRegStr SHCTX "${UNINSTALL}" "Publisher" "qor"
    WriteRegStr SHCTX "${UNINSTALL}" "InstallLocation" "$INSTDIR"
    WriteRegStr SHCTX "${UNINSTALL}" "UninstallString" '"$INSTDIR\uninstall.exe"'
    WriteRegStr SHCTX "${UNINSTALL}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
    WriteRegDWORD SHCTX "${UNINSTALL}" "EstimatedSize" ${SIZE}
    WriteRegDWORD SHCTX "${UNINSTALL}" "NoModify" 1
    WriteRegDWORD SHCTX "${UNINSTALL}" "NoRepair" 1

    ${GetParameters} $R0
    ClearErrors
    ${GetOptions} $R0 "/NoPath" $R1
    ${If} ${Errors}
        !insertmacro PATH_ENTRY add
        ${If} $R0 != 0
            SetErrorLevel 2
            MessageBox MB_OK|MB_ICONSTOP "$(NoPath)" /SD IDOK
            Abort "$(NoPath)"
        ${EndIf}
    ${EndIf}
SectionEnd

; ---- the uninstaller

Function un.onInit
    StrCpy $Scope user
    SetShellVarContext all
    ReadRegStr $R0 SHCTX "${UNINSTALL}" "InstallLocation"
    ${If} $R0 == $INSTDIR
        StrCpy $Scope machine
        !insertmacro HAS_RIGHTS
        ${If} ${Errors}
            !insertmacro ASK_FOR_RIGHTS "$INSTDIR\uninstall.exe" "/Elevated"
        ${EndIf}
    ${EndIf}
    !insertmacro USE_SCOPE
FunctionEnd

; Removes only what was installed, and folders only if they are empty then. If a file stays, the uninstaller stays, too,
; and can be called again.
Section Uninstall
    !insertmacro REFUSE_IN_USE $INSTDIR
    SetOutPath "$TEMP"
    ClearErrors
    !include "${LISTS}/remove.nsh"
    ${If} ${Errors}
        !insertmacro END_IN_USE
    ${EndIf}
    !insertmacro PATH_ENTRY remove
    Delete "$INSTDIR\uninstall.exe"
    !include "${LISTS}/folders.nsh"
    RMDir "$INSTDIR"
    ReadRegStr $R0 SHCTX "${UNINSTALL}" "InstallLocation"
    ${If} $R0 == $INSTDIR
        DeleteRegKey SHCTX "${UNINSTALL}"
    ${EndIf}
SectionEnd
