<#
.SYNOPSIS
Compares how Windows' own tools show a captured run with how zepn-decode shows it. NEVER RUN ON WINDOWS YET.

.DESCRIPTION
For an administrator, with tracefmt in the path. Registers the event provider for the while.

.PARAMETER Package
A package's folder, as ./zepn package makes it.

.PARAMETER Replay
The program replay.cpp, built.

.PARAMETER Capture
A file of ./zepn demo --capture.

.PARAMETER Expected
What ./zepn decode prints of it.
#>
param(
    [Parameter(Mandatory)] [string] $Package,
    [Parameter(Mandatory)] [string] $Replay,
    [Parameter(Mandatory)] [string] $Capture,
    [Parameter(Mandatory)] [string] $Expected
)
Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'

function Invoke-Tool([string] $Path, [string[]] $Arguments) {
    & $Path $Arguments | Out-Host
    if ($LASTEXITCODE -ne 0) { throw "$Path ended with $LASTEXITCODE." }
}

# Numbers in one form, for each tool has its own for addresses and statuses: no 0x, no zeros before, no name after.
function Get-Plain([string] $Line) {
    $Line.Trim().ToLowerInvariant() -replace '\(status_\w+\)', '' -replace '0x', '' -replace '\b0+(?=[0-9a-f])', ''
}

$folder = Join-Path $env:ProgramData 'zepn-read-reports'
if (Test-Path $folder) { Remove-Item $folder -Recurse }
New-Item $folder -ItemType Directory | Out-Null
$etl = Join-Path $folder 'run.etl'
Invoke-Tool $Replay @($Capture, $etl)

# The service that reads events has no access to every folder, so the image goes to one that all may read.
$image = Join-Path $folder 'zepn.sys'
Copy-Item (Join-Path $Package 'x64\zepn.sys') $image
$manifest = Join-Path $Package 'trace\zepn.man'
Invoke-Tool 'wevtutil.exe' @('im', $manifest, "/rf:$image", "/mf:$image")
try {
    Invoke-Tool 'wevtutil.exe' @('gp', 'Zepn-Notifier', '/ge', '/gm:true')
    $xmlFile = Join-Path $folder 'events.xml'
    Invoke-Tool 'tracerpt.exe' @($etl, '-o', $xmlFile, '-of', 'XML', '-y')
} finally {
    Invoke-Tool 'wevtutil.exe' @('um', $manifest)
}
[xml] $xml = Get-Content $xmlFile -Raw
$found = @($xml.Events.Event | Where-Object { $_.System.Provider.Guid -eq '{84cd9d5e-9773-4ba7-a709-72f079e81cde}' } |
        ForEach-Object { "event $($_.System.EventID) level $($_.System.Level): $($_.RenderingInfo.Message)" })

$env:TRACE_FORMAT_PREFIX = '%!LEVEL! %!FUNC!: '
$textFile = Join-Path $folder 'messages.txt'
Invoke-Tool 'tracefmt.exe' @($etl, '-p', (Join-Path $Package 'trace'), '-o', $textFile, '-nosummary')
$found += @(Get-Content $textFile | Where-Object { $_ -match '^TRACE_LEVEL_' })

# "17 event 12 level 2: text" and "18 trace 33 Site TRACE_LEVEL_ERROR Function: text"; events first, each kind in its
# order.
$lines = Get-Content $Expected
$wanted = @($lines | Where-Object { $_ -match '^\d+ event ' } | ForEach-Object { $_ -replace '^\d+ ', '' })
$wanted += @($lines | Where-Object { $_ -match '^\d+ trace ' } | ForEach-Object { $_ -replace '^\d+ trace \d+ \w+ ', '' })

Write-Host "$($wanted.Count) reports, $($found.Count) shown by Windows"
$differences = 0
for ($index = 0; $index -lt [Math]::Max($wanted.Count, $found.Count); ++$index) {
    $ours = if ($index -lt $wanted.Count) { $wanted[$index] } else { '(nothing)' }
    $theirs = if ($index -lt $found.Count) { $found[$index] } else { '(nothing)' }
    if ((Get-Plain $ours) -ne (Get-Plain $theirs)) {
        ++$differences
        Write-Host "ours:     $ours`nWindows': $theirs"
    }
}
if ($differences -gt 0 -or $wanted.Count -eq 0) { throw "$differences reports differ." }
