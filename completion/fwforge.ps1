# Tab completion in PowerShell for fwforge-inspect (its commands and each command's
# options) and fwforge-lzh (c, d and the options). Where a command takes a file, nothing
# is offered here and PowerShell completes file names itself. Load it in a session, or
# from $PROFILE:   . C:\path\to\fwforge.ps1

function FwforgeCompletions($commandAst, $cursorPosition, $wordToComplete, $commands, $globalOptions, $commandOptions) {
    # The words typed before the one being completed; the first that is no option is
    # the command.
    $before = @($commandAst.CommandElements | Select-Object -Skip 1 |
        Where-Object { $_.Extent.EndOffset -lt $cursorPosition } | ForEach-Object { $_.ToString() })
    $command = $before | Where-Object { $_ -notlike '-*' } | Select-Object -First 1
    if (-not $command) {
        $candidates = $commands + $globalOptions
    } elseif ($wordToComplete -like '-*') {
        $candidates = & $commandOptions $command
    } else {
        return
    }
    $candidates | Where-Object { $_ -like "$wordToComplete*" } | ForEach-Object {
        [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)
    }
}

Register-ArgumentCompleter -Native -CommandName 'fwforge-inspect', 'fwforge-inspect.exe' -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    FwforgeCompletions $commandAst $cursorPosition $wordToComplete `
        @('list', 'verify', 'extract', 'map', 'diff', 'replace', 'plan') @('--help', '--version') {
            param($command)
            $options = @('--16', '--32', '--bbsize', '--help')
            switch ($command) {
                'list' { $options += '--json' }
                'verify' { $options += '--json' }
                'map' { $options += '--html' }
                'replace' { $options += @('--module', '--file', '--as-is') }
                'plan' { $options = @('--out', '-c', '--json', '--budget', '--help') }
            }
            $options
        }
}

Register-ArgumentCompleter -Native -CommandName 'fwforge-lzh', 'fwforge-lzh.exe' -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    FwforgeCompletions $commandAst $cursorPosition $wordToComplete `
        @('c', 'd') @('--help', '--version') { param($command) @('--help') }
}
