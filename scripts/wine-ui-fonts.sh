# Sourced: wine_ui_fonts points the user interface fonts of the Wine prefix
# in WINEPREFIX at DejaVu Sans, with WINE the loader. Wine's default UI font
# is one the toolkit's text layout does not resolve, so its font would have
# no family and every glyph would show as a box; Windows itself has Segoe UI
# there.
wine_ui_fonts() {
    # A LOGFONTW: height -12, width, escapement and orientation 0, weight
    # 400, no italic, underline or strike-out, DEFAULT_CHARSET, default
    # precisions, quality and pitch, then "DejaVu Sans" in 32 UTF-16 units.
    local logfont=f4ffffff000000000000000000000000900100000000000100000000
    logfont+=440065006a006100560075002000530061006e007300$(printf '0%.0s' $(seq 1 84))
    local name
    for name in CaptionFont MenuFont MessageFont StatusFont SmCaptionFont IconFont; do
        "$WINE" reg add 'HKCU\Control Panel\Desktop\WindowMetrics' /v "$name" /t REG_BINARY /d "$logfont" /f \
            >/dev/null 2>&1
    done
}

# Wine links the user's Desktop to the home folder; the toolkit's file
# chooser, which the window opens on the Desktop, cannot read that link's
# information and stops in an error dialog. A plain folder, as on Windows.
wine_plain_desktop() {
    local desktop
    desktop="$WINEPREFIX/drive_c/users/$(id -un)/Desktop"
    if [ -L "$desktop" ]; then
        rm "$desktop"
        mkdir -p "$desktop"
    fi
}
